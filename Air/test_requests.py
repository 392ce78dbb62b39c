"""Each request by its raw bytes: the desk's own conversations, on the air."""

from air import AirTest
from test_requests import RequestsInAStream, RequestsInPackets, header_first, randomly, whole


class InAStream(RequestsInAStream, AirTest):
    kinds = ("rfcomm",)
    ways = [whole, header_first, randomly]


class InPackets(RequestsInPackets, AirTest):
    kinds = ("l2cap", "le")
    ways = RequestsInPackets.ways[:1] + RequestsInPackets.ways[2:]  # all but byte by byte, which takes long
