#!/usr/bin/env python3
"""Checks that systemd knows the settings of the portable archive's units: those of a unit since
version 245, those of a file since-N.conf since N. The manual pages of systemd 255 and later name
the versions."""

import gzip
import pathlib
import re
import sys


def read_versions():
    versions = {}
    for page in ("unit", "service", "socket", "exec", "kill", "resource-control"):
        text = gzip.open(f"/usr/share/man/man5/systemd.{page}.5.gz", "rt").read()
        for item in re.split(r"^\.PP\n(?=\\fI\w+=)", text, flags=re.M)[1:]:
            # The setting is at least as old as its values. Very old ones have no version.
            notes = [int(number) for number in re.findall(r"^Added in version (\d+)", item, re.M)]
            for name in re.findall(r"fI(\w+)=", item.partition("\n")[0]):
                versions[name] = min(notes, default=0)
    return versions


versions = read_versions()
status = 0
for file in map(pathlib.Path, sys.argv[1:]):
    dropIn = re.fullmatch(r"since-(\d+)\.conf", file.name)
    oldest = int(dropIn[1]) if dropIn else 245
    for name in re.findall(r"^(\w+)=", file.read_text(), re.M):
        if versions[name] > oldest:
            print(f"{file.name}: systemd has {name}= since version {versions[name]}")
            status = 1
sys.exit(status)
