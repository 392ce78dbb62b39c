// Reads what LibraryReader.cpp reads, in the same form, by the generated JavaScript parser.
// Usage: javascript_reader.cjs FOLDER
"use strict";

const fs = require("fs");
const path = require("path");

const Shotmentor = require(path.resolve(process.argv[2], "Shotmentor.js"));
const KaitaiStream = require(require.resolve("kaitai-struct/KaitaiStream", { paths: [process.argv[2]] }));

const refusals = [KaitaiStream.EOFError, KaitaiStream.ValidationNotEqualError, KaitaiStream.ValidationLessThanError,
    KaitaiStream.ValidationGreaterThanError];

// All that the parser found in a struct, whatever its names are.
function plain(value) {
    if (value instanceof Uint8Array) {
        return Buffer.from(value).toString("hex");
    }
    if (Array.isArray(value)) {
        return value.map(plain);
    }
    if (typeof value === "object") {
        const fields = Object.entries(value).filter(([name]) => !name.startsWith("_"));
        return Object.fromEntries(fields.map(([name, field]) => [name, plain(field)]));
    }
    return value;
}

function readOne(kind, stream) {
    try {
        return plain(new kind(stream));
    } catch (error) {
        if (refusals.some((refusal) => error instanceof refusal)) {
            return "refused";
        }
        throw error;
    }
}

function framesIn(stream) {
    const found = [];
    while (!stream.isEof() && !found.includes("refused")) {
        found.push(readOne(Shotmentor.Frame, stream));
    }
    return found;
}

function read({ type, bytes }) {
    const stream = new KaitaiStream(new Uint8Array(Buffer.from(bytes, "hex")).buffer);
    const records = { camera_record: Shotmentor.CameraRecord, phone_record: Shotmentor.PhoneRecord };
    return type in records ? readOne(records[type], stream) : framesIn(stream);
}

process.stdout.write(JSON.stringify(JSON.parse(fs.readFileSync(0, "utf8")).map(read)));
