"""How L2CAP carries packets: with enhanced retransmission, which loses none."""

import subprocess

from air import ENHANCED_RETRANSMISSION, AirTest
from desk import LIST, list_reply, request

STATE_CONNECTED, PSM = "1", 4097


class Modes(AirTest):
    kinds = ("l2cap",)

    def test_both_ends_use_enhanced_retransmission(self):
        subprocess.run(["mount", "-t", "debugfs", "none", "/sys/kernel/debug"])
        with self.camera("--empty") as camera, camera.link() as link:
            self.assertEqual(link.ask(request(LIST)), list_reply([]))
            with open("/sys/kernel/debug/bluetooth/l2cap") as file:
                # source (type), destination (type), state, PSM, two channels, two sizes, security, mode
                ends = [line.split() for line in file]
        modes = [int(end[-1]) for end in ends if end[4] == STATE_CONNECTED and int(end[5]) == PSM]
        self.assertEqual(modes, [ENHANCED_RETRANSMISSION] * 2, ends)
