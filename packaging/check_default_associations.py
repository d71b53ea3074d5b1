#!/usr/bin/env python3
"""Checks packaging/DefaultAssociations.xml against the package: the file is well-formed, it
associates exactly http, https, .htm and .html, and each association names the ProgID that
velomar.wxs registers under Software\\Classes (with an open command running velomar-open.exe),
lists for that identifier in the application's Capabilities, and the application name those
Capabilities carry. A default-associations file naming a ProgID that no package registers is
silently ignored by Windows, so a rename on one side only would go unnoticed on real hosts.

usage: check_default_associations.py SOURCE_DIR"""
import sys
import xml.etree.ElementTree as ET
from pathlib import Path

EXPECTED = {"http", "https", ".htm", ".html"}


def main(root):
    problems = []
    associations = ET.parse(root / "packaging/DefaultAssociations.xml").getroot()
    if associations.tag != "DefaultAssociations":
        problems.append(f"root element is {associations.tag}, not DefaultAssociations")
    entries = {a.get("Identifier"): a for a in associations.findall("Association")}
    if set(entries) != EXPECTED or len(entries) != len(associations.findall("Association")):
        problems.append(f"associations {sorted(entries)} instead of {sorted(EXPECTED)}, once each")

    ns = {"w": "http://schemas.microsoft.com/wix/2006/wi"}
    wxs = ET.parse(root / "packaging/velomar.wxs").getroot()
    values = {}  # (key, name) -> value, name "" for the default value
    for key in wxs.iterfind(".//w:RegistryKey", ns):
        for value in key.iterfind("w:RegistryValue", ns):
            values[(key.get("Key"), value.get("Name", ""))] = value.get("Value")
    for value in wxs.iterfind(".//w:Component/w:RegistryValue", ns):
        values[(value.get("Key"), value.get("Name", ""))] = value.get("Value")
    prog_ids = {key.split("\\")[2] for (key, name), value in values.items()
                if key.startswith("Software\\Classes\\") and key.endswith("\\shell\\open\\command")
                and "[#velomar_open.exe]" in (value or "")}
    capabilities = [key for (key, name) in values if key.endswith("\\Capabilities") and name == "ApplicationName"]
    if len(prog_ids) != 1 or len(capabilities) != 1:
        problems.append(f"the package registers ProgIDs {sorted(prog_ids)} and capabilities {capabilities}")
    else:
        prog_id, caps = prog_ids.pop(), capabilities[0]
        app = values[(caps, "ApplicationName")]
        for ident, entry in sorted(entries.items()):
            if entry.get("ProgId") != prog_id:
                problems.append(f"{ident}: ProgId {entry.get('ProgId')}, the package registers {prog_id}")
            if entry.get("ApplicationName") != app:
                problems.append(f"{ident}: ApplicationName {entry.get('ApplicationName')}, the package's is {app}")
            where = "FileAssociations" if ident.startswith(".") else "URLAssociations"
            if values.get((f"{caps}\\{where}", ident)) != prog_id:
                problems.append(f"{ident}: not in the package's {where} as {prog_id}")
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
