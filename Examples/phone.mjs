// A whole small phone to copy from, on a parser that is made of Protocol/shotmentor.ksy.
//
//     tools/compile_protocol.sh javascript            # makes the parser, and gets what it runs on by npm
//     shotmentor-camera --store /tmp/camera --listen tcp:127.0.0.1:4660 &
//     node Examples/phone.mjs tcp:127.0.0.1:4660 list
//
// Usage: phone.mjs tcp:HOST:PORT COMMAND, where COMMAND is one of
//   list                    the presets, by their numbers
//   fetch NUMBER FILE       writes a preset's picture into a file
//   store PRESET PICTURE    stores a preset: a file that holds a record of 744 bytes, or the title of a plain one
//   rename NUMBER TITLE     gives a preset another title
//   delete NUMBER           deletes a preset
// SHOTMENTOR_PARSERS names the folder of the parsers where that is not build/protocol of the sources.
import fs from "node:fs";
import { createRequire } from "node:module";
import net from "node:net";
import path from "node:path";
import { fileURLToPath } from "node:url";

const LIST = 1, PICTURE = 2, STORE = 3, UPDATE = 4, DELETE = 5, REPLY = 0x1000; // a reply adds the last to its request
const HEADER = 8;
const LONGEST_REQUEST = 600000, LONGEST_REPLY = 1 << 24; // the second is our own bound: no camera has such a picture
const RECORD = 744, TITLE = 51, SHORTEST_PICTURE = 100;
const MODE = 52, EV_STEP = 72, CUSTOM_ID = 672, SERVER_ID = 680, MADE_ID = 684; // offsets in a record
const PLAIN = { [MODE]: 1, [EV_STEP]: 50, [MADE_ID]: 0x40 }; // program, no compensation; the camera keeps what is sent
const PATIENCE = 10; // seconds for an answer

const parsers = process.env.SHOTMENTOR_PARSERS || fileURLToPath(new URL("../build/protocol", import.meta.url));
const require = createRequire(path.resolve(parsers, "phone.mjs"));
let Shotmentor, KaitaiStream;

function demand(holds, otherwise) {
    if (!holds) {
        throw new Error(otherwise);
    }
}

function connect(url) {
    const [, host, port] = /^tcp:(.+):(\d{1,5})$/.exec(url) || [];
    demand(host && Number(port) < 65536, `'${url}' is no camera that node can reach; give tcp:HOST:PORT`);
    const link = net.connect({ host, port: Number(port) });
    link.on("error", () => {}); // whoever reads is told of it
    link.setTimeout(1000 * PATIENCE, () => link.destroy(new Error(`the camera says nothing for ${PATIENCE} s`)));
    return link;
}

function words(...values) {
    const bytes = Buffer.alloc(4 * values.length);
    values.forEach((value, index) => bytes.writeInt32LE(value, 4 * index));
    return bytes;
}

// The bytes of one reply. The link stays open for the next request.
async function receive(link) {
    let data = Buffer.alloc(0);
    for await (const part of link.iterator({ destroyOnReturn: false })) {
        data = Buffer.concat([data, part]);
        if (data.length > LONGEST_REPLY) {
            break;
        } else if (data.length >= HEADER && data.length >= data.readInt32LE(4)) {
            return data;
        }
    }
    throw new Error("the camera has closed the link before its reply was complete, or the reply has no end");
}

// What stands in the reply to a request, unless that is a refusal.
async function ask(link, number, payload = Buffer.alloc(0)) {
    const total = HEADER + payload.length;
    demand(total <= LONGEST_REQUEST, `${payload.length} bytes are too many for a camera; make the picture smaller`);
    link.write(Buffer.concat([words(number, total), payload]));
    const data = await receive(link);
    const frame = new Shotmentor(new KaitaiStream(new Uint8Array(data).buffer)).frames[0];
    demand(frame.function !== Shotmentor.Function.BUSY_REPLY, "the camera serves another phone; try again later");
    demand(frame.function === REPLY + number, `the camera answers ${number} with ${frame.function}`);
    const { result = Shotmentor.Result.TRUE } = frame.body;
    const name = String(Shotmentor.Result[result] ?? result).toLowerCase();
    demand(result === Shotmentor.Result.TRUE, `the camera refuses: ${name}`);
    return frame.body;
}

// A title as a person may see it: whatever a camera sends, it moves no cursor.
function textOf(bytes) {
    return Buffer.from(bytes).toString("utf8").split("\0")[0].replace(/[\p{C}\p{Zl}\p{Zp}]/gu, "?");
}

// A record with a title, and words by their offsets.
function record(title, values) {
    const bytes = Buffer.alloc(RECORD), length = Buffer.byteLength(title);
    demand(length <= TITLE, `the title has ${length} bytes; ${TITLE} are the most`);
    bytes.write(title);
    Object.entries(values).forEach(([offset, value]) => bytes.writeInt32LE(value, Number(offset)));
    return bytes;
}

async function presetOf(link, number) {
    const { presets } = await ask(link, LIST);
    const found = presets.find((preset) => String(preset.presetNum) === number);
    demand(found, `no preset ${number}; the camera has ${presets.length}, which list shows`);
    return found;
}

const commands = {
    async list(link) {
        for (const { presetNum, customId, title } of (await ask(link, LIST)).presets) {
            console.log(`${String(presetNum).padStart(3)}  id ${customId}  ${textOf(title)}`);
        }
    },
    async fetch(link, number, file) {
        const { customId, applocalId } = await presetOf(link, number);
        const reply = await ask(link, PICTURE, words(customId, applocalId));
        const isThere = reply.customId === customId && reply.picture.length > 0;
        demand(isThere, `the camera has no picture of preset ${number}`);
        fs.writeFileSync(`${file}.part`, reply.picture);
        fs.renameSync(`${file}.part`, file); // a file that is there stays whole, whatever happens
    },
    async store(link, given, file) {
        const data = fs.existsSync(given) ? fs.readFileSync(given) : record(given, PLAIN);
        const picture = fs.readFileSync(file);
        const least = `a picture has at least ${SHORTEST_PICTURE}`;
        demand(data.length === RECORD, `${given} has ${data.length} bytes; a record has ${RECORD}`);
        demand(picture.length >= SHORTEST_PICTURE, `${file} has ${picture.length} bytes; ${least}`);
        const reply = await ask(link, STORE, Buffer.concat([data, picture]));
        console.log(`stored as preset ${reply.presetNum}, id ${reply.customId}`);
    },
    async rename(link, number, title) {
        const { customId, serverId } = await presetOf(link, number);
        await ask(link, UPDATE, record(title, { [CUSTOM_ID]: customId, [SERVER_ID]: serverId }));
    },
    async delete(link, number) {
        const { presetNum, customId } = await presetOf(link, number);
        await ask(link, DELETE, words(presetNum, customId));
    },
};

const [url = "", command = "", ...given] = process.argv.slice(2);
try {
    const isCommand = Object.hasOwn(commands, command) && commands[command].length === given.length + 1;
    demand(isCommand, "usage: phone.mjs URL list | fetch NUMBER FILE | store PRESET PICTURE | ...; see its head");
    [Shotmentor, KaitaiStream] = [require("./javascript/Shotmentor.js"), require("kaitai-struct/KaitaiStream")];
    const link = connect(url);
    await commands[command](link, ...given);
    link.end();
} catch (error) {
    const isMissing = error.code === "MODULE_NOT_FOUND";
    console.error(`phone.mjs: ${isMissing ? "run tools/compile_protocol.sh: no parser" : error.message || error.code}`);
    process.exit(1);
}
