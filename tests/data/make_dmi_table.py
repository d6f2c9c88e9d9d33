#!/usr/bin/env python3
"""Writes the firmware tables of an invented machine, as `dmidecode --from-dump` reads them.

  offset  size  content
  0       32    SMBIOS 3.0 entry point, padded with zeros
  32            the structures it points to: system (1), end of table (127)

A structure is a header, its fields, and the texts they refer to by number, counted from 1; number 0
is no text. Each text ends with a zero byte, and so does the list; an empty list is two zero bytes.
"""

import argparse
import struct
import uuid

TABLE_OFFSET = 32


def encode_structure(kind, handle, fields, texts):
    header_size = 4
    header = struct.pack("<BBH", kind, header_size + len(fields), handle)
    return header + fields + b"".join(text.encode() + b"\0" for text in texts or [""]) + b"\0"


def encode_system(serial):
    texts = ["Example Maker", "Example Terminal", "1", *([serial] if serial else [])]
    fields = struct.pack(
        "<BBBB16sBBB",
        1, 2, 3,
        4 if serial else 0,
        uuid.UUID("00112233-4455-6677-8899-aabbccddeeff").bytes_le,
        6,  # woken up by its power switch
        0,
        0,
    )
    return encode_structure(1, 0x0100, fields, texts)


def encode_entry_point(table_size):
    size = 24
    layout = "<5sBBBBBBBIQ"
    fields = (size, 3, 0, 0, 1, 0, table_size, TABLE_OFFSET)  # version 3.0, entry point revision 1
    checksum = -sum(struct.pack(layout, b"_SM3_", 0, *fields)) % 256  # all bytes add up to 0
    return struct.pack(layout, b"_SM3_", checksum, *fields).ljust(TABLE_OFFSET, b"\0")


def main():
    parser = argparse.ArgumentParser(description="Writes firmware tables for dmidecode --from-dump")
    parser.add_argument("--serial", required=True, help="the system's serial number; may be empty")
    parser.add_argument("--output", required=True, help="the file to write")
    arguments = parser.parse_args()

    table = encode_system(arguments.serial) + encode_structure(127, 0x7F00, b"", [])
    with open(arguments.output, "wb") as output:
        output.write(encode_entry_point(len(table)) + table)


if __name__ == "__main__":
    main()
