#!/usr/bin/env python3
"""Checks the Group Policy templates against each other and against the code that reads the
values: both files are well-formed XML (xmllint), every string, presentation, category and
supportedOn reference resolves, every presentation control names an element of its policy, and
the policies write exactly the values the service reads, under the keys it reads them from, with
the registry types it expects.

usage: check_admx.py SOURCE_DIR"""
import re
import subprocess
import sys
import xml.etree.ElementTree as ET
from pathlib import Path

NS = {"p": "http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions"}
ELEMENT_TYPES = {"decimal": "REG_DWORD", "multiText": "REG_MULTI_SZ", "text": "REG_SZ", "enum": "REG_SZ"}
CONTROLS = {"decimal": "decimalTextBox", "multiText": "multiTextBox", "text": "textBox", "enum": "dropdownList"}


def cpp_string(text):
    return text.encode().decode("unicode_escape")


def read_code(root):
    """(log key, URL policy key, {value name: expected type or None})"""
    config = (root / "service/ServiceConfig.h").read_text()
    product = cpp_string(re.search(r'kProductKey\[\] = L"([^"]*)"', config).group(1))
    url_key = cpp_string(re.search(r'kUrlPolicyKey\[\] = L"([^"]*)"',
                                   (root / "pipeserver/UrlPolicyRegistry.h").read_text()).group(1))
    log_names = re.findall(r'L"(\w+)"', re.search(r"kLogSettingNames\[\] = \{([^}]*)\}",
                                                  (root / "log/LogSettingsKeys.h").read_text()).group(1))
    reader = (root / "pipeserver/UrlPolicyRegistry.cpp").read_text()
    url_names = re.findall(r'QueryValue\(key\.get\(\), L"(\w+)"\)', reader) + re.findall(r'std::pair\{L"(\w+)"', reader)
    types = {name: t for name, t in re.findall(r'problem\(L"(\w+)", L"not a (REG_\w+)"\)', reader)}
    for name in re.findall(r'std::pair\{L"(\w+)"', reader):
        types.setdefault(name, "REG_MULTI_SZ")
    policy_key = product.replace("Software\\", "Software\\Policies\\", 1)
    expected = {(policy_key, n): "REG_DWORD" for n in log_names}
    expected.update({(url_key, n): types.get(n) for n in url_names})
    # The channel transport: a text under the policy key.
    transport = cpp_string(re.search(r'kChannelTransportValue\[\] = L"(\w+)"', config).group(1))
    expected[(policy_key, transport)] = "REG_SZ"
    # The reference agent's values, under the same policy key.
    agent = (root / "tools/agent/BrowserFallback.h").read_text()
    agent_key = cpp_string(re.search(r'kAgentPolicyKey\[\] = L"([^"]*)"', agent).group(1))
    for name, kind in re.findall(r'\[\] = L"(\w+)";\s*// (REG_\w+)', agent):
        expected[(agent_key, name)] = kind
    return expected


def main():
    root = Path(sys.argv[1])
    admx_path = root / "packaging/admx/Velomar.admx"
    adml_path = root / "packaging/admx/en-US/Velomar.adml"
    subprocess.run(["xmllint", "--noout", str(admx_path), str(adml_path)], check=True)
    admx, adml = ET.parse(admx_path).getroot(), ET.parse(adml_path).getroot()
    errors = []

    strings = {s.get("id") for s in adml.iterfind(".//p:stringTable/p:string", NS)}
    presentations = {p.get("id"): p for p in adml.iterfind(".//p:presentationTable/p:presentation", NS)}
    categories = {c.get("name") for c in admx.iterfind(".//p:categories/p:category", NS)}
    supported = {d.get("name") for d in admx.iterfind(".//p:supportedOn/p:definitions/p:definition", NS)}
    for node in admx.iter():
        for attr in ("displayName", "explainText"):
            ref = re.fullmatch(r"\$\(string\.(\w+)\)", node.get(attr) or "")
            if node.get(attr) and (not ref or ref.group(1) not in strings):
                errors.append(f"{node.get('name')}: {attr} {node.get(attr)} does not resolve")
        if node.tag.endswith("parentCategory") and node.get("ref") not in categories:
            errors.append(f"category {node.get('ref')} is not defined")
        if node.tag.endswith("supportedOn") and node.get("ref") and node.get("ref") not in supported:
            errors.append(f"supportedOn {node.get('ref')} is not defined")

    written = {}
    for policy in admx.iterfind(".//p:policies/p:policy", NS):
        name, key = policy.get("name"), policy.get("key")
        elements = {e.get("id"): e for e in policy.iterfind("p:elements/*", NS)}
        if policy.get("valueName"):
            written[(key, policy.get("valueName"))] = "REG_DWORD" if policy.find("p:enabledValue/p:decimal", NS) is not None else None
        for element in elements.values():
            kind = element.tag.split("}")[1]
            if kind == "enum":
                # Every item must be a word the service understands.
                words = {v.text for v in element.iterfind("p:item/p:value/p:string", NS)}
                if words != {"library", "rdp", "auto"}:
                    errors.append(f"{name}: enum items {sorted(words)} are not library, rdp, auto")
            written[(element.get("key") or key, element.get("valueName"))] = ELEMENT_TYPES.get(kind)
        ref = re.fullmatch(r"\$\(presentation\.(\w+)\)", policy.get("presentation") or "")
        if elements and not ref:
            errors.append(f"{name}: has elements but no presentation")
        if ref:
            presentation = presentations.get(ref.group(1))
            if presentation is None:
                errors.append(f"{name}: presentation {ref.group(1)} does not resolve")
                continue
            controls = {c.get("refId"): c.tag.split("}")[1] for c in presentation if c.get("refId")}
            for element_id, element in elements.items():
                want = CONTROLS.get(element.tag.split("}")[1])
                if controls.get(element_id) != want:
                    errors.append(f"{name}: element {element_id} needs a {want} in its presentation")
            for control_id in controls.keys() - elements.keys():
                errors.append(f"{name}: presentation control {control_id} names no element")

    expected = read_code(root)
    for key_name in expected.keys() - written.keys():
        errors.append("no policy writes {}\\{}".format(*key_name))
    for key_name in written.keys() - expected.keys():
        errors.append("the service does not read {}\\{}".format(*key_name))
    for key_name in expected.keys() & written.keys():
        if expected[key_name] and written[key_name] != expected[key_name]:
            errors.append("{}\\{}: ".format(*key_name) + f"written as {written[key_name]}, read as {expected[key_name]}")

    for error in errors:
        print(error, file=sys.stderr)
    print(f"{len(written)} policy values checked, {len(errors)} problems")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
