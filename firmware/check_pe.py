#!/usr/bin/env python3
"""Checks that each given file is a PE32+ x64 image for the EFI boot-service
driver subsystem (or, with --application, the EFI application subsystem),
relocatable, with an entry point and no imports."""
import struct
import sys

IMAGE_FILE_MACHINE_AMD64 = 0x8664
PE32_PLUS = 0x20B
SUBSYSTEM_EFI_APPLICATION = 10
SUBSYSTEM_EFI_BOOT_SERVICE_DRIVER = 11
SUBSYSTEMS = {
    SUBSYSTEM_EFI_APPLICATION: "EFI application",
    SUBSYSTEM_EFI_BOOT_SERVICE_DRIVER: "EFI boot-service driver",
}


def check(path, expected=SUBSYSTEM_EFI_BOOT_SERVICE_DRIVER):
    data = open(path, "rb").read()
    if data[:2] != b"MZ":
        return "no MZ header"
    (pe,) = struct.unpack_from("<I", data, 0x3C)
    if data[pe:pe + 4] != b"PE\0\0":
        return "no PE signature"
    machine, sections = struct.unpack_from("<HH", data, pe + 4)
    if machine != IMAGE_FILE_MACHINE_AMD64:
        return "machine 0x%x, not x64" % machine
    opt = pe + 24
    (magic,) = struct.unpack_from("<H", data, opt)
    if magic != PE32_PLUS:
        return "optional header magic 0x%x, not PE32+" % magic
    (entry,) = struct.unpack_from("<I", data, opt + 16)
    if entry == 0:
        return "no entry point"
    (subsystem,) = struct.unpack_from("<H", data, opt + 68)
    if subsystem != expected:
        return "subsystem %d, not an %s" % (subsystem, SUBSYSTEMS[expected])
    (count,) = struct.unpack_from("<I", data, opt + 108)
    dirs = [struct.unpack_from("<II", data, opt + 112 + 8 * i) for i in range(count)]
    if count > 1 and dirs[1][1] != 0:
        return "image imports symbols"
    if count > 5 and dirs[5][1] == 0:
        return "image has no base relocations"
    return None


def main(args):
    expected = SUBSYSTEM_EFI_BOOT_SERVICE_DRIVER
    if args[:1] == ["--application"]:
        expected = SUBSYSTEM_EFI_APPLICATION
        args = args[1:]
    paths = args
    failed = 0
    for path in paths:
        problem = check(path, expected)
        print("%s: %s" % (path, problem or "PE32+ x64 " + SUBSYSTEMS[expected]))
        failed += problem is not None
    return 1 if failed or not paths else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
