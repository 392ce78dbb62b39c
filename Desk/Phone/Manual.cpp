#include "Manual.h"

#include "CommandLine/ExitCodes.h"

namespace desk::phone {

command_line::Manual manual() {
    return {
        .description =
            {"What the phone's application does with a camera, for a terminal and for scripts: a real one, or "
             "shotmentor-camera.",
             "Data goes to standard output, talk to standard error. Progress and pictures show on a terminal only. "
             "What cameras and files write is not trusted: what could do something to a terminal is replaced."},
        .words_title = "Values",
        .words =
            {{"PRESET",
              "12: the number that list prints first; id:13: the custom_id; \"Golden hour\": (a part of) the title"},
             {"URL",
              "unix:PATH, tcp:HOST:PORT, rfcomm:ADDRESS:CHANNEL, l2cap:ADDRESS:PSM or le:ADDRESS:PSM; with auto in "
              "the place of CHANNEL, or of PSM behind le, the phone asks the camera"}},
        .examples =
            {{"list", "List the presets of a camera on this machine:",
              "shotmentor-phone --connect unix:store/camera.sock list"},
             {"list",
              "List those of one behind Bluetooth:", "shotmentor-phone --connect rfcomm:00:11:22:33:44:55:3 list"},
             {"list", "Draw their pictures, too:", "shotmentor-phone --connect tcp:localhost:7700 list --pictures"},
             {"list", "Follow the presets as they change, with a look every 5 seconds:",
              "shotmentor-phone --connect tcp:localhost:7700 list --watch 5"},
             {"list", "Write what both say to each other to a file for Wireshark:",
              "shotmentor-phone --connect tcp:localhost:7700 --capture phone.btsnoop list"},
             {"show", "Show preset 3 of a camera behind TCP, and draw its picture:",
              "shotmentor-phone --connect tcp:localhost:7700 show 3 --picture"},
             {"show",
              "Save it as a file to edit:", "shotmentor-phone --connect tcp:localhost:7700 --json show 3 > dawn.json"},
             {"new", "Begin a new one:", "shotmentor-phone new > dawn.json"},
             {"picture", "Save its picture:", "shotmentor-phone --connect tcp:localhost:7700 picture 3 -o dawn.jpg"},
             {"store",
              "Store both as a new preset:", "shotmentor-phone --connect tcp:localhost:7700 store dawn.json dawn.jpg"},
             {"store", "Store one with a picture as large as cameras take them:",
              "shotmentor-phone --connect tcp:localhost:7700 store dawn.json photo.jpg --fit"},
             {"store", "Only say what the camera would make of it:",
              "shotmentor-phone --connect tcp:localhost:7700 store --dry-run dawn.json dawn.jpg"},
             {"rename", "Give the preset with custom_id 13 another title:",
              "shotmentor-phone --connect tcp:localhost:7700 rename id:13 \"Dawn over the sea\""},
             {"delete", "Delete two presets, by a part of the title and by number:",
              "shotmentor-phone --connect tcp:localhost:7700 delete \"over the sea\" 4"},
             {"backup", "Save all presets in a folder, or go on with that:",
              "shotmentor-phone --connect tcp:localhost:7700 backup presets"},
             {"restore",
              "Store them in another camera:", "shotmentor-phone --connect tcp:192.168.1.7:7700 restore presets"},
             {"copy", "Store two of them there without a backup:",
              "shotmentor-phone --connect tcp:localhost:7700 copy 3 \"golden hour\" --to tcp:192.168.1.7:7700"},
             {"schema", "Save what editors check preset files by:", "shotmentor-phone schema > preset.schema.json"},
             {"leave", "Tell the camera that the phone leaves, with a result of its own:",
              "shotmentor-phone --connect tcp:localhost:7700 leave --code -8"},
             {"check", "Try all that a phone may send, and report it to a build server:",
              "shotmentor-phone --connect tcp:localhost:7700 check --junit check.xml"},
             {"scan", "Find the cameras around, and their URLs:", "shotmentor-phone scan"},
             {"scan", "Look longer, for a program:", "shotmentor-phone --json scan --seconds 30"},
             {"decode", "Read what a phone and a camera said, out of the log that a phone keeps of its Bluetooth:",
              "shotmentor-phone decode btsnoop_hci.log"},
             {"decode", "Watch it as it is captured, with every byte and its meaning:",
              "shotmentor-phone decode --follow --hex capture.btsnoop"},
             {"decode",
              "Find in what two conversations differ:", "shotmentor-phone decode before.btsnoop --diff now.btsnoop"},
             {"replay", "See what would be sent to a camera:", "shotmentor-phone replay capture.btsnoop --dry-run"},
             {"replay",
              "Send it, which changes presets as the phone did then, and tell all that the camera says otherwise:",
              "shotmentor-phone --connect tcp:localhost:7700 replay capture.btsnoop --all"}},
        .exit_codes = command_line::exit_codes_of_phone(),
        .environment = {{"SHOTMENTOR_CONNECT", "the URL of the camera's link where --connect is not given"},
                        {"NO_COLOR", "when it is not empty, no picture is drawn"}},
        .scopes = {{"--raw", command_line::Scope::Kind::only, {"list", "show", "delete", "new", "decode"}},
                   {"--width", command_line::Scope::Kind::only, {"list", "show", "decode", "scan"}},
                   {"--json", command_line::Scope::Kind::except, {"leave", "new", "schema", "replay"}},
                   {"--verbose", command_line::Scope::Kind::except, {"check", "new", "schema", "decode", "scan"}},
                   {"--connect", command_line::Scope::Kind::except, {"new", "schema", "decode", "scan"}},
                   {"--timeout", command_line::Scope::Kind::except, {"new", "schema", "decode"}},
                   {"--mtu", command_line::Scope::Kind::except, {"new", "schema", "decode", "replay", "scan"}},
                   {"--capture", command_line::Scope::Kind::except, {"new", "schema", "decode", "scan"}},
                   {"--quiet", command_line::Scope::Kind::except, {"new", "schema", "decode"}}},
        .see_also = "shotmentor-camera",
    };
}

} // namespace desk::phone
