"""The camera that users run has the C library's allocator; the one that can refuse is a program beside it."""

import os
import shutil
import subprocess
import unittest

from desk import CAMERA, DeskTest, environment_of_programs


class Lab(DeskTest):
    """--refuse-allocation runs shotmentor-camera-lab from the folder of shotmentor-camera."""

    def test_a_camera_without_the_lab_beside_it_says_so_and_makes_no_store(self):
        alone = shutil.copy(CAMERA, self.folder)
        store = os.path.join(self.folder, "alone")
        done = subprocess.run(
            [alone, "--store", store, "--refuse-allocation", "1"],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=10, env=environment_of_programs(),
        )  # fmt: skip
        lab = os.path.join(os.path.realpath(self.folder), "shotmentor-camera-lab")
        self.assertEqual(
            done.stderr.decode(),
            f"shotmentor-camera: cannot run {lab}: No such file or directory; "
            "--refuse-allocation needs it, put it there\n",
        )
        self.assertEqual((done.returncode, done.stdout), (1, b""))
        self.assertFalse(os.path.exists(store))

    def test_the_camera_becomes_the_lab_only_when_asked(self):
        for arguments, program in (((), CAMERA), (("--refuse-allocation", 1), CAMERA + "-lab")):
            with self.subTest(arguments=arguments), self.camera(*arguments) as camera:
                running = os.readlink(f"/proc/{camera.process.pid}/exe")
                self.assertEqual(running, os.path.realpath(program))


if __name__ == "__main__":
    unittest.main()
