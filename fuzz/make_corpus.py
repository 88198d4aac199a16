#!/usr/bin/python3
"""Writes the hand-made inputs of fuzz/corpus. Needs python3-msgpack. Inputs that a fuzzer found are kept beside them."""

import pathlib
import struct

import msgpack

CORPUS = pathlib.Path(__file__).parent / "corpus"


def pack(value):
    return msgpack.packb(value, use_bin_type=True)


def ext(type_code, payload):
    return msgpack.ExtType(type_code, payload)


def request(value, method="GetSatelliteId", caller="Player"):
    return pack([0, 1, method, [caller, value]])


def nested(depth):
    value = []
    for _ in range(depth - 1):
        value = [value]
    return value


def raw_request(value):
    """A request around bytes that need not be MessagePack."""
    return b"\x94\x00\x01\xa1m\x92\xa0" + value


SCALARS = [
    None, True, False, 0, -1, 127, 128, 2**31 - 1, -(2**31), 1.5, "text", "",
    ext(1, b""), ext(2, struct.pack(">h", -2)), ext(7, struct.pack(">d", 25569.5)), ext(16, b"\xff"), ext(17, b"\x80"),
    ext(18, struct.pack(">H", 65535)), ext(19, struct.pack(">I", 2**32 - 1)), ext(20, struct.pack(">q", -(2**63))),
    ext(21, struct.pack(">Q", 2**64 - 1)), 2**31, 2**40, -(2**40), 2**63, 2**64 - 1,
]

ARRAYS = [
    [], b"", b"\x00\x01\xfe\xff", [None, "a", [1, 2]],
    ext(66, struct.pack(">3h", 1, -1, 0)), ext(67, struct.pack(">2i", 1, -1)), ext(68, struct.pack(">2f", 0.5, -1)),
    ext(69, struct.pack(">d", 0.25)), ext(71, struct.pack(">d", 25569)), ext(72, pack("one") + pack("") + pack("x" * 40)),
    ext(75, b"\xff\xff\x00\x00\x00\x01"), ext(80, b"\x7f\x80"), ext(82, b"\x00\x01"), ext(83, b"\x00\x00\x00\x01"),
    ext(84, struct.pack(">q", -1)), ext(85, struct.pack(">Q", 1)), ext(67, b""), ext(72, b""),
]

WIRE = {
    "request_lookup": request(["Player", "Recorder"]),
    "request_nil": request(None, "kel.Describe", ""),
    "notification": pack([2, "OnServiceAvailabilityChanged", ["MainRegister", ["Schedule", "Recorder", 1]]]),
    "response_result": pack([1, 1, None, [0, [0, 17]]]),
    "response_refusal": pack([1, 2**32 - 1, None, [0x40010, None]]),
    "response_error": pack([1, 7, [0x20004, "unknown method Rewind"], None]),
    "response_both": pack([1, 7, [1, "text"], [0, None]]),
    "response_neither": pack([1, 7, None, None]),
    "scalars": request(SCALARS),
    "arrays": request(ARRAYS),
    "float32": raw_request(b"\xca\x3f\xc0\x00\x00"),
    "whole_floats": request([2.0, -3.0, 2.0**63]),
    "whole_float32": raw_request(b"\xca\x5b\xff\x3f\xc0"),
    "signed_formats": raw_request(b"\x94\xd0\x05\xd1\x00\x05\xd2\x00\x00\x00\x05\xd3" + b"\x00" * 7 + b"\x05"),
    "long_forms": b"\xdd\0\0\0\4\xcf" + b"\0" * 8 + b"\xce\0\0\0\1\xdb\0\0\0\1m\xdc\0\2\xd9\0\xdc\0\1\xc0",
    "nested_32": request(nested(32)),
    "nested_33": request(nested(33)),
    "nested_200": request(nested(200)),
    "map": request({}),
    "never_used": raw_request(b"\xc1"),
    "ext_unlisted": request(ext(3, b"\0\0\0\1")),
    "ext_negative": raw_request(b"\xd6\xff\0\0\0\0"),
    "ext_array_of_variants": request(ext(76, b"\xc0")),
    "ext_array_of_bytes": request(ext(81, b"\0")),
    "ext_short": request(ext(20, b"\0" * 7)),
    "ext_odd": request(ext(66, b"\0" * 3)),
    "ext_texts_cut": request(ext(72, pack("one") + b"\xa5two")),
    "ext_texts_other": request(ext(72, pack("one") + b"\x01")),
    "nul_in_text": request("a\0b"),
    "nul_in_texts": request(ext(72, pack("a\0b"))),
    "nul_in_method": request(None, "a\0b"),
    "huge_array": raw_request(b"\xdd\xff\xff\xff\xff"),
    "huge_text": raw_request(b"\xdb\xff\xff\xff\xff"),
    "huge_bytes": raw_request(b"\xc6\x01\0\0\0"),
    "huge_ext": raw_request(b"\xc9\xff\xff\xff\xff\x43"),
    "many_numbers": raw_request(b"\xc9\x00\x20\x00\x02\x42"),
    "many_elements": raw_request(b"\xdd\x00\x10\x00\x01"),
    "announced_only": raw_request(b"\xdd\x00\x10\x00\x00\xc0"),
    "two_messages": pack([1, 1, None, [0, None]]) * 2,
    "cut": request(["Player", "Recorder"])[:-3],
    "method_array": pack([0, 1, ["m"], ["", None]]),
    "five_parts": pack([0, 1, "m", ["", None], None]),
    "kind_3": pack([3, 1, "m", ["", None]]),
    "id_over": pack([0, 2**32, "m", ["", None]]),
    "code_over": pack([1, 1, None, [2**31, None]]),
    "scalar": pack(5),
    "empty": b"",
}

SATELLITE = """<?xml version='1.0'?>
<satellite>
\t<id>3</id>
\t<satName>Recorder</satName>
\t<ip>192.168.1.20</ip>
\t<port>50123</port>
\t<hostname>studio</hostname>
\t<kelProtocolVersion>2</kelProtocolVersion>
\t<service>
\t\t<name>Schedule</name>
\t\t<description>Recording schedule</description>
\t</service>
\t<service>
\t\t<name>Tune</name>
\t\t<description></description>
\t</service>
</satellite>
"""

XML = {
    "satellite_id": "id\n" + SATELLITE,
    "satellite_services": "service\n" + SATELLITE,
    "registration": "lastSatId\n<?xml version='1.0'?>\n<registration>\n\t<serverId>a1B2c3D4e5F6g7H8</serverId>\n"
                    "\t<lastSatId>12</lastSatId>\n</registration>\n",
    "listeners": "serviceListener\n<serviceListener><service>a</service><satellite>b</satellite></serviceListener>" * 2,
    "absent": "port\n<satellite></satellite>",
    "not_closed": "id\n<id>3</id><id>4",
    "close_only": "id\n</id><id>",
    "nested": "a\n<a><a>1</a></a>",
    "mark_in_value": "a\n<a><</a></a>",
    "adjacent": "a\n<a></a><a></a>",
    "empty_tag": "\n<>x</>",
    "tag_of_marks": "</a\n<</a>x<//a>",
    "empty": "",
}

SERVER = "Server: Yar Kel Directory\r\n"


def notify(aliases="192.168.1.20, 10.0.0.5", port="5001", users="[alice,x,1], [bob,y,0]"):
    return (f"NOTIFY 1.0\r\n{SERVER}Max-Version: 2.1\r\nVersion: 2.1\r\nServerID: 7f3a\r\n"
            f"Aliases: {aliases}\r\nPort: {port}\r\nUsers: {users}\r\n\r\n")


DISCOVERY = {
    "search": f"SEARCH 1.0\r\n{SERVER}\r\n",
    "search_blanks": "SEARCH 1.0\r\nServer: \t Yar Kel Directory  \r\n\r\n",
    "search_backwards": f"{SERVER}SEARCH 1.0\r\n",
    "search_not_ended": "SEARCH 1.0\r\nServer: Yar Kel Directory",
    "search_beyond": "SEARCH 1.0\r\nX: " + "x" * 40 + f"\r\n{SERVER}\r\n",
    "search_nul": f"SEARCH 1.0\r\n\0{SERVER}",
    "notify": notify(),
    "notify_no_users": notify(users=""),
    "notify_escapes": notify(users="[a\\,b\\\\,],[\\,,1], [,,0]"),
    "notify_users_cut": notify(users="[alice,x,1], [bob,y"),
    "notify_users_cut_escape": notify(users="[alice\\"),
    "notify_users_line": notify(users="[al\r\nPort: 1\r\n,x,1]"),
    "notify_flag_2": notify(users="[alice,x,2]"),
    "notify_addresses": notify(aliases=", ".join(f"10.0.{i}.1" for i in range(40))),
    "notify_bad_addresses": notify(aliases="127.0.0.1, 0.0.0.0, 255.255.255.255, 239.1.1.1, 1.2.3, ::1,, 10.0.0.1"),
    "notify_port_over": notify(port="65536"),
    "notify_port_text": notify(port="5001x"),
    "notify_cut": notify()[:-4],
    "notify_twice": notify() * 2,
    "byebye": f"BYEBYE 1.0\r\n{SERVER}Max-Version: 2.1\r\nVersion: 2.1\r\nServerID: 7f3a\r\n\r\n",
    "byebye_no_id": f"BYEBYE 1.0\r\n{SERVER}\r\n",
    "empty": "",
}


def write(folder, inputs):
    (CORPUS / folder).mkdir(parents=True, exist_ok=True)
    for name, content in inputs.items():
        (CORPUS / folder / name).write_bytes(content if isinstance(content, bytes) else content.encode())


write("wire", WIRE)
write("xml_tags", XML)
write("discovery", DISCOVERY)
