"""Faults planted in the host of Examples/host.c: the phone's check finds each one, and names it."""

import concurrent.futures
import dataclasses
import json
import os
import signal
import subprocess
import tempfile
import unittest

from desk import PATIENCE, PHONE, Camera, _die_with_the_test, picture, run_phone

HOST_SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "Examples", "host.c")
COMPILER = os.environ.get("SHOTMENTOR_C_COMPILER", "cc")
INCLUDE_DIRS = os.environ.get("SHOTMENTOR_INCLUDE_DIRS", "").split(":")
LIBRARY_DIR = os.environ.get("SHOTMENTOR_LIBRARY_DIR", "")
FAULTY = 31  # the exit code


@dataclasses.dataclass
class Fault:
    """A passage of the host that occurs once, what stands there instead, the check that has to fail, and words that
    name the fault. `more` are further passages. A fault may keep presets of the check in the camera, and harm others.
    """

    passage: str
    instead: str
    check: str
    words: str
    quick: bool = True
    more: tuple = ()
    leaves: bool = False
    harms: bool = False


FAULTS = {
    "a_count_of_more_presets_than_there_are": Fault(
        "*count = stored_count;", "*count = 41;", "list-records", "empty record"
    ),
    "a_list_without_a_phone_link": Fault("return phone >= 0;", "return false;", "list-answered", "link state for down"),
    "an_impossible_link": Fault(
        "return number_of(linked_ids[custom_mode]);", "return custom_mode == 0 ? 77 : -1;", "delete-one", "impossible"
    ),
    "a_link_to_whatever_is_last": Fault(
        "return number_of(linked_ids[custom_mode]);",
        "return stored_count - 1;",
        "store-unlinked",
        "linked_custom_mode 2",
        leaves=True,
    ),
    "numbers_that_begin_with_1": Fault(
        "stored[number].preset_num = number;", "stored[number].preset_num = number + 1;", "list-numbers", "preset_num 1"
    ),
    "a_list_that_changes_by_itself": Fault(
        "*count = stored_count;", "*count = stored_count; stored[0].bulb += 1;", "list-steady", "bulb", harms=True
    ),
    "iso_steps_that_change_by_themselves": Fault(
        "return key == SM_SPEC_KEY_ISO_STEP ? 1 : 0;",
        "static int calls; return key > 0 ? calls++ % 3 : 0;",
        "iso-step",
        "ISO",
    ),
    "a_save_that_stores_nothing": Fault(
        "preset->preset_num = stored_count++;", "preset->preset_num = stored_count;", "store-listed", "no preset"
    ),
    "an_identity_that_is_not_written_back": Fault(
        "preset->custom_id = next_id++;", "next_id++;", "store-identity", "custom_id 0"
    ),
    "one_identity_for_all_presets": Fault(
        "preset->custom_id = next_id++;", "preset->custom_id = next_id;", "store-new-ids", "another preset has as well"
    ),
    "the_identity_of_another_preset": Fault(
        "added->custom_id = next_id;",
        "added->custom_id = 1;",
        "store-new-ids",
        "another preset has as well",
        more=(("preset->custom_id = next_id++;", "preset->custom_id = 1; next_id++;"),),
        leaves=True,
    ),
    "an_identity_of_0": Fault(
        "added->custom_id = next_id;", "added->custom_id = 0;", "store-new-ids", "has id 0", leaves=True
    ),
    "a_record_that_loses_a_field": Fault(
        "*added = *preset;", "*added = *preset; added->drive = 0;", "store-fields", "drive"
    ),
    "a_record_that_loses_the_exposure": Fault(
        "*added = *preset;", "*added = *preset; added->tv_index = 0;", "store-exposure", "tv_index"
    ),
    "a_picture_one_byte_short": Fault(
        "fwrite(image, 1, (size_t)length, file) == (size_t)length",
        "fwrite(image, 1, (size_t)length - 1, file) > 0",
        "picture-smallest",
        "99 bytes",
    ),
    "a_picture_path_without_a_file": Fault(
        "*preset = stored[number];",
        "*preset = stored[number]; preset->screennail_path[0] = '-';",
        "pictures-opened",
        "could not open",
    ),
    "a_picture_that_is_empty": Fault(
        "*preset = stored[number];",
        "*preset = stored[number]; preset->screennail_path[0] = '-';",
        "picture-smallest",
        "empty picture",
    ),
    "a_record_without_its_identity": Fault(
        "*preset = stored[number];", "*preset = stored[number]; preset->custom_id = 0;", "picture-id", "id 0"
    ),
    "a_preset_for_every_identity": Fault("return number >= 0;", "return true;", "refuse-faulty-delete", "result 1"),
    "an_error_reply_that_is_sent": Fault(
        "reply_left = (size_t)message->length;",
        "reply_left = message->length > 0 ? (size_t)message->length : 12;",
        "silent-picture",
        "function 0x1002 with 12 bytes",
    ),
    "an_update_that_ignores_the_server_id": Fault(
        "stored[number].server_id = server_id;", "(void)server_id;", "update-server-id", "server_id"
    ),
    "an_update_that_truncates_titles": Fault(
        "strnlen(title, SM_TITLE_SIZE - 1)", "strnlen(title, 40)", "update-long-title", "40 bytes"
    ),
    "an_update_that_writes_behind_the_title": Fault(
        "strnlen(title, SM_TITLE_SIZE - 1)", "strlen(title) + 1", "update-full-title", "mode"
    ),
    "an_update_that_changes_more_than_it_should": Fault(
        "stored[number].server_id = server_id;",
        "stored[number].server_id = server_id; stored[number].bulb = 99;",
        "update-rest",
        "bulb",
    ),
    "a_deletion_that_changes_the_others": Fault(
        "stored[kept].preset_num = kept;",
        "stored[kept].preset_num = kept; stored[kept].bulb = 99;",
        "delete-others",
        "Landscape",
        harms=True,
    ),
    "a_phone_that_has_left_for_good": Fault(
        "return phone >= 0;",
        "return in_use;",
        "leave",
        "link state for down",
        more=(
            (
                "bool __ui_get_bt_state_for_phone(void) {",
                "static bool in_use = true;\nbool __ui_get_bt_state_for_phone(void) {",
            ),
            (
                "int __ui_set_shotmentor_state(int state) {",
                "int __ui_set_shotmentor_state(int state) {\n    in_use = in_use && state == 1;",
            ),
        ),
    ),
    "an_update_of_another_preset_as_well": Fault(
        "stored[number].server_id = server_id;",
        "stored[number].server_id = stored[0].server_id = server_id;",
        "update-others",
        "Landscape",
        harms=True,
    ),
    "an_update_that_always_succeeds": Fault(
        "return SM_RETURN_LOCALN_ERR;", "return SM_RETURN_TRUE;", "refuse-unknown-id", "result 1"
    ),
    "a_deletion_of_the_preset_before": Fault(
        "if (flags[number] == 0) {", "if (flags[number + 1] == 0) {", "delete-one", "what was not named", leaves=True
    ),
    "a_deletion_of_a_foreign_preset_as_well": Fault(
        "if (flags[number] == 0) {",
        "if (flags[number] == 0 && number != 1) {",
        "delete-one",
        "IT IS LOST",
        leaves=True,
        harms=True,
    ),
    "a_deletion_of_nothing": Fault(
        "if (flags[number] == 0) {", "if (flags[number] != 2) {", "delete-one", "still listed", leaves=True
    ),
    "numbers_that_keep_their_gap": Fault("stored[kept].preset_num = kept;", "", "delete-numbers", "renumbers"),
    "a_confirmation_twice": Fault(
        "reply = NULL;\n",
        "reply = NULL;\n    ADE_ShotMentor_Result_Manager(NULL, 0);\n",
        "confirm-once",
        "no reply was waiting",
    ),
    "a_confirmation_never": Fault(
        "reply = NULL;\n    ADE_ShotMentor_Result_Manager(NULL, 0);", "reply = NULL;", "confirm-all", "missing"
    ),
    "a_request_that_outlives_its_link": Fault(
        "    ADE_ShotMentor_Return_To_Idle();\n", "", "drop-in-request", "first request of a new link"
    ),
    "a_reply_that_is_waited_for_without_a_phone": Fault(
        "    if (reply != NULL) {\n        confirm();\n    }\n", "", "drop-in-reply", "on which no reply was taken"
    ),
    "a_reply_that_goes_on_on_the_next_link": Fault(
        "    if (reply != NULL) {\n        confirm();\n    }\n}\n\nstatic void send_on(void) {",
        "}\n\nstatic void send_on(void) {",
        "drop-in-reply",
        "comes first on a new link",
        more=(("reply != NULL ? POLLOUT : POLLIN", "reply != NULL && phone >= 0 ? POLLOUT : POLLIN"),),
    ),
    "packets_that_are_merged": Fault(
        "const ssize_t length = recv(phone, packet, sizeof packet, MSG_DONTWAIT);",
        "ssize_t length = recv(phone, packet, sizeof packet, MSG_DONTWAIT);\n"
        "    const ssize_t more = length <= 0 ? 0 : recv(phone, packet + length, 1000, MSG_DONTWAIT);\n"
        "    length += more > 0 ? more : 0;",
        "pipelined",
        "counted other bytes than were sent",
    ),
    "packets_that_are_cut": Fault(
        "recv(phone, packet, sizeof packet, MSG_DONTWAIT)",
        "recv(phone, packet, 4000, MSG_DONTWAIT)",
        "store-result",
        "counted other bytes than were sent",
    ),
    "a_host_that_ends_with_its_phone": Fault(
        "    phone = -1;\n", "    exit(0);\n", "drop-in-request", "first request of a new link"
    ),
    "a_41st_preset_that_is_dropped": Fault(
        "SM_RETURN_JPG_ERR : SM_RETURN_DATA_ERR;", "SM_RETURN_JPG_ERR : SM_RETURN_TRUE;", "limit", "41st", quick=False
    ),
}


class PlantedHost(Camera):
    """A host that was compiled from the example's text with a fault in it."""

    def __init__(self, folder, program):
        self.log = os.path.join(folder, "log")
        self.errors = open(self.log, "w+b")
        with open(os.path.join(folder, "grey.jpg"), "wb") as file:
            file.write(picture(1))
        self.process = subprocess.Popen(
            [program, "unix:host.sock", "grey.jpg"], cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=self.errors, preexec_fn=_die_with_the_test,
        )  # fmt: skip
        self.url = self._announced().replace("unix:", f"unix:{folder}/")


def compiled(folder, fault):
    with open(HOST_SOURCE) as file:
        text = file.read()
    for passage, instead in ((fault.passage, fault.instead), *fault.more):
        if text.count(passage) != 1:
            raise AssertionError(f"{passage!r} occurs {text.count(passage)} times in {HOST_SOURCE}")
        text = text.replace(passage, instead)
    source, program = os.path.join(folder, "host.c"), os.path.join(folder, "host")
    with open(source, "w") as file:
        file.write(text)
    subprocess.run(
        [COMPILER, "-std=c11", "-w", "-rdynamic", *(f"-I{path}" for path in INCLUDE_DIRS), source, "-o", program,
         f"-L{LIBRARY_DIR}", "-lshotmentor", f"-Wl,-rpath,{LIBRARY_DIR}"],
        check=True, timeout=60,
    )  # fmt: skip
    return program


def checked(fault):
    """What the check says of a host with this fault."""
    with tempfile.TemporaryDirectory(prefix="desk-") as folder:
        host = PlantedHost(folder, compiled(folder, fault))
        try:
            options = ["--timeout", "0.5", "--json", "check", "--camera-log", host.log]
            done = run_phone(host.url, *options, *(["--quick"] if fault.quick else []), timeout=12 * PATIENCE)
            return done, json.loads(done.stdout) if done.stdout else None
        finally:
            host.kill()


class PlantedFaults(unittest.TestCase):
    """One test for each fault, below."""

    maxDiff = None

    @classmethod
    def setUpClass(cls):
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            cls.results = dict(zip(FAULTS, pool.map(checked, FAULTS.values())))

    def assertFound(self, name):
        fault, (done, report) = FAULTS[name], self.results[name]
        self.assertEqual(done.returncode, FAULTY, done.stderr.decode())
        failed = {check["id"]: check for check in report["checks"] if check["result"] == "failed"}
        self.assertIn(fault.check, failed, {key: check["found"] for key, check in failed.items()})
        self.assertIn(fault.words, failed[fault.check]["found"] + failed[fault.check]["expected"])
        for check in failed.values():
            for label in ("found", "expected", "blame"):
                self.assertNotEqual(check[label], "", check)
        cleanup = report["cleanup"]
        self.assertEqual((cleanup["left"] != [], cleanup["harm"] != ""), (fault.leaves, fault.harms), cleanup)
        return report

    def test_an_identity_that_comes_back_is_noted_and_no_fault(self):
        done, report = checked(
            Fault(
                "added->custom_id = next_id;",
                "added->custom_id = stored_count + 100;",
                "",
                "",
                more=(("preset->custom_id = next_id++;", "preset->custom_id = added->custom_id; next_id++;"),),
            )
        )
        self.assertEqual(done.returncode, 0, done.stdout)
        notes = {check["id"]: check["note"] for check in report["checks"] if "note" in check}
        self.assertEqual(list(notes), ["id-after-deletion"])
        self.assertIn("id 103 came back", notes["id-after-deletion"])

    def test_a_lost_preset_ends_all_deletions_and_is_told_in_the_end(self):
        report = self.assertFound("a_deletion_of_a_foreign_preset_as_well")
        self.assertIn("Waterfall", report["cleanup"]["harm"])
        self.assertNotIn("Landscape", report["cleanup"]["harm"])
        self.assertNotIn("Evening", report["cleanup"]["harm"])
        self.assertNotEqual(report["cleanup"]["left"], [])

    def test_presets_that_cannot_be_found_again_are_told(self):
        report = self.assertFound("a_phone_that_has_left_for_good")
        self.assertFalse(report["cleanup"]["done"])
        self.assertRegex(
            report["cleanup"]["why"], r'presets called "ShotMentor check [0-9a-f]{8} \.\.\." may be left in it$'
        )

    def test_a_check_that_is_stopped_takes_the_same_care(self):
        with tempfile.TemporaryDirectory(prefix="desk-") as folder:
            host = PlantedHost(folder, compiled(folder, FAULTS["a_deletion_of_the_preset_before"]))
            try:
                process = subprocess.Popen([PHONE, "--connect", host.url, "check"], stdout=subprocess.PIPE)
                for line in process.stdout:
                    if b"picture-id" in line:
                        break
                process.send_signal(signal.SIGINT)
                output = process.communicate(timeout=2 * PATIENCE)[0].decode()
            finally:
                host.kill()
        self.assertIn("PRESETS OF THIS RUN ARE LEFT in the camera: the camera has deleted what was not named", output)
        self.assertNotIn("PRESETS THAT ARE NOT THIS RUN'S HAVE CHANGED", output)

    def test_a_camera_that_deletes_the_wrong_preset_loses_none_of_its_own(self):
        report = self.assertFound("a_deletion_of_the_preset_before")
        self.assertEqual(report["cleanup"]["harm"], "")


def _add_test(name):
    def test(self):
        self.assertFound(name)

    setattr(PlantedFaults, f"test_the_check_finds_{name}", test)


for _name in FAULTS:
    _add_test(_name)


if __name__ == "__main__":
    unittest.main()
