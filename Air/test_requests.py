"""Each request by its raw bytes: the desk's own conversations, on the air."""

import functools

from air import AirTest
from desk import Stored, sample_store
from test_requests import RequestsInAStream, RequestsInPackets, header_first, randomly, whole


@functools.cache
def sample_presets():
    """Programs start slowly in the guest."""
    return Stored(sample_store())


class Requests(AirTest):
    kinds = ()
    test_many_requests_over_one_link_are_all_answered = None  # test_phone.py counts them

    def setUp(self):
        AirTest.setUp(self)
        self.samples()
        self.before = sample_presets()
        self.serving = self.camera("--quiet")


class InAStream(Requests, RequestsInAStream):
    """Over RFCOMM."""

    kinds = ("rfcomm",)
    ways = [whole, header_first, randomly]


class InPackets(Requests, RequestsInPackets):
    """Over Low Energy alone: programs start slowly in the guest, and packets of L2CAP take the same way through the
    camera. What is L2CAP's own is in the other files."""

    kinds = ("le",)
    ways = RequestsInPackets.ways[:1] + RequestsInPackets.ways[2:]  # all but byte by byte, which takes long
