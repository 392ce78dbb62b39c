"""Presets and pictures, there and back."""

from air import AirTest
from desk import LIST, PICTURE, REPLY, list_reply, phone_record, picture, picture_request, request, run_phone
from desk import store_request, store_result
import struct


class Presets(AirTest):
    def setUp(self):
        super().setUp()
        self.serving = self.camera("--empty")

    def test_an_empty_list(self):
        self.assertEqual(self.serving.ask(request(LIST)), list_reply([]))

    def test_a_picture_comes_back_as_it_was_stored(self):
        image = picture(1, 30000)
        with self.serving.link() as link:
            result, _, custom_id, _ = store_result(link.ask(store_request(phone_record(b"On the air"), image)))
            self.assertEqual(result, 1)
            answer = link.ask(picture_request(custom_id))
            self.assertEqual(answer, request(REPLY + PICTURE, struct.pack("<i", custom_id) + image))

    def test_the_phone_of_the_desk_lists(self):
        self.assertEqual(store_result(self.serving.ask(store_request(phone_record(b"Here"), picture(1))))[0], 1)
        done = run_phone(self.serving.url, "list")
        self.assertEnds(done, 0)
        self.assertIn("Here", done.stdout.decode())
