// Makes parsers of a description: node compile.cjs DESCRIPTION FOLDER LANGUAGE... ("all" for every one there is).
// Those of each language go into a folder of its name below FOLDER.
"use strict";

const fs = require("fs");
const path = require("path");
const yaml = require("js-yaml");
const Compiler = require("kaitai-struct-compiler");

const compiler = new Compiler();

function languagesOf(asked) {
    const unknown = asked.filter((language) => language !== "all" && !compiler.languages.includes(language));
    if (unknown.length > 0) {
        throw new Error(`no language '${unknown[0]}'; choose from all, ${compiler.languages.join(", ")}`);
    }
    return asked.includes("all") ? compiler.languages : asked;
}

// What is there already stays untouched: a program may be reading it.
function write(folder, files) {
    fs.mkdirSync(folder, { recursive: true });
    for (const [name, text] of Object.entries(files)) {
        const file = path.join(folder, path.basename(name));
        if (!fs.existsSync(file) || fs.readFileSync(file, "utf8") !== text) {
            fs.writeFileSync(file, text);
        }
    }
}

async function main(description, folder, ...asked) {
    const tree = yaml.load(fs.readFileSync(description, "utf8"));
    for (const language of languagesOf(asked)) {
        try {
            write(path.join(folder, language), await compiler.compile(language, tree, null, false));
        } catch (error) {
            const fault = String(error.message || error).replace(/^[\w.]+Exception: /, "");
            throw new Error(`${description} gives no ${language} parser: ${fault}`);
        }
    }
}

main(...process.argv.slice(2)).catch((error) => {
    console.error(`compile_protocol.sh: ${String(error.message).trim().replace(/\s*\n\s*/g, " ")}`);
    process.exit(1);
});
