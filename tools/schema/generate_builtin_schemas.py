#!/usr/bin/env python3
"""Writes trace/BuiltInSchemaTable.cpp, the built-in event schemas.

Reads the event manifests of the providers that the logon processor consumes
and keeps, for the events it routes, every version's property names and
in-types in payload order, with the provider, task and opcode names that the
Trace Data Helper would report. The remote-desktop agent registers no
manifest; its two fixed payloads are described below.

    generate_builtin_schemas.py MANIFEST_DIR OUTPUT        write the table
    generate_builtin_schemas.py --check MANIFEST_DIR OUTPUT
                                  exit 1 when OUTPUT differs from what it writes
"""

import argparse
import re
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

NS = {"m": "http://schemas.microsoft.com/win/2004/08/events"}

# Manifest file and the event ids the processor routes.
CONSUMED = [
    ("Microsoft-Windows-Winlogon.xml", [10, 801, 802, 811, 812]),
    ("Microsoft-Windows-Shell-Core.xml", [9602]),
    ("Microsoft-Windows-User-Profiles-Service.xml", [5, 6, 7, 67]),
    ("Microsoft-Windows-GroupPolicy.xml", [4016, 5016, 8001, 8004]),
    ("Microsoft-Windows-Kernel-Process.xml", [1, 2]),
    ("Microsoft-Windows-TerminalServices-LocalSessionManager.xml", [21]),
]

IN_TYPES = {
    "win:UnicodeString": 1, "win:AnsiString": 2, "win:Int8": 3, "win:UInt8": 4,
    "win:Int16": 5, "win:UInt16": 6, "win:Int32": 7, "win:UInt32": 8, "win:Int64": 9,
    "win:UInt64": 10, "win:Float": 11, "win:Double": 12, "win:Boolean": 13,
    "win:Binary": 14, "win:GUID": 15, "win:Pointer": 16, "win:FILETIME": 17,
    "win:SYSTEMTIME": 18, "win:SID": 19, "win:HexInt32": 20, "win:HexInt64": 21,
}
OUT_TYPES = {"win:Port": 22, "win:IPv4": 23}

# Names of the standard opcodes as TDH reports them; an event without an
# opcode has win:Info.
STANDARD_OPCODES = {None: "Info", "win:Info": "Info", "win:Start": "Start", "win:Stop": "Stop"}

# The manifests were recreated from TDH, which names nothing for these; the
# recreation filled in placeholders.
PLACEHOLDER = re.compile(r"^(task|opcode)_\d+$")

AGENT_GUID = "0d5380e5-a6ba-4cfc-b31e-484c775e4db9"
# (event id, [(name, in-type, fixed length in elements)]): UTF-16 fields of
# fixed length, zero-terminated within them.
AGENT_EVENTS = [
    (11, [("SessionId", 8, 0), ("SessionType", 1, 64)]),
    (16, [("SessionId", 8, 0), ("Reserved", 14, 16), ("Product", 1, 512),
          ("Component", 1, 512), ("Event", 1, 512)]),
]


def guid_initializer(text):
    hex_digits = text.strip("{}").replace("-", "")
    data4 = ", ".join("0x" + hex_digits[16 + 2 * i:18 + 2 * i] for i in range(8))
    return "{0x%s, 0x%s, 0x%s, {%s}}" % (hex_digits[0:8], hex_digits[8:12], hex_digits[12:16],
                                         data4)


def text_literal(text):
    return "nullptr" if text is None else 'u"%s"' % text


class Schema:
    def __init__(self, guid, provider_name, event_id, version, task, opcode, properties):
        self.guid = guid
        self.provider_name = provider_name
        self.event_id = event_id
        self.version = version
        self.task = task
        self.opcode = opcode
        self.properties = properties  # [(name, in-type, out-type, length)]


def localized_strings(root):
    return {s.get("id"): s.get("value") for s in root.iter("{%s}string" % NS["m"])}


def resolve_message(message, strings):
    match = re.fullmatch(r"\$\(string\.(.+)\)", message or "")
    return strings.get(match.group(1)) if match else message


def parse_manifest(path):
    # Value maps are not needed here, and the recreated manifests quote some
    # of their texts in a way that is not well-formed XML.
    text = path.read_text(encoding="utf-8")
    text = re.sub(r"<maps>.*?</maps>", "", text, flags=re.S)
    text = re.sub(r'^\s*<string id="map_.*\n', "", text, flags=re.M)
    return ElementTree.fromstring(text)


def manifest_schemas(path, event_ids):
    root = parse_manifest(path)
    strings = localized_strings(root)
    provider = root.find(".//m:provider", NS)
    guid = provider.get("guid")
    tasks = {t.get("name"): resolve_message(t.get("message"), strings) or t.get("name")
             for t in provider.findall("m:tasks/m:task", NS)}
    templates = {t.get("tid"): t for t in provider.findall("m:templates/m:template", NS)}
    schemas = []
    for event in provider.findall("m:events/m:event", NS):
        event_id = int(event.get("value"))
        if event_id not in event_ids:
            continue
        task = tasks.get(event.get("task"))
        if task is not None and PLACEHOLDER.match(task):
            task = None
        opcode = event.get("opcode")
        if opcode not in STANDARD_OPCODES:
            sys.exit("%s: event %d has an opcode this generator does not know: %s"
                     % (path.name, event_id, opcode))
        properties = []
        template = templates.get(event.get("template"))
        for data in ([] if template is None else template.findall("m:data", NS)):
            if data.get("count") or data.get("length"):
                sys.exit("%s: event %d: arrays and counted lengths are not supported"
                         % (path.name, event_id))
            in_type = IN_TYPES.get(data.get("inType"))
            if in_type is None:
                sys.exit("%s: unknown in-type %s" % (path.name, data.get("inType")))
            properties.append((data.get("name"), in_type, OUT_TYPES.get(data.get("outType"), 0), 0))
        schemas.append(Schema(guid, provider.get("name"), event_id, int(event.get("version")),
                              task, STANDARD_OPCODES[opcode], properties))
    missing = set(event_ids) - {s.event_id for s in schemas}
    if missing:
        sys.exit("%s: no event %s" % (path.name, sorted(missing)))
    return schemas


def agent_schemas():
    return [Schema(AGENT_GUID, None, event_id, 0, None, None,
                   [(name, in_type, 0, length) for name, in_type, length in fields])
            for event_id, fields in AGENT_EVENTS]


def render(schemas):
    lines = [
        "// Generated by tools/schema/generate_builtin_schemas.py from the providers'",
        "// event manifests; do not edit. Regenerate from the repository root with",
        "// tools/schema/generate_builtin_schemas.py <manifest folder> trace/BuiltInSchemaTable.cpp",
        "// clang-format off",
        '#include "trace/BuiltInSchemaTable.h"',
        "",
        "namespace logonmon {",
        "",
        "namespace {",
        "",
    ]
    # Events that share a template share one property list.
    lists = {}
    for schema in schemas:
        key = tuple(schema.properties)
        if key and key not in lists:
            lists[key] = "kProperties%d" % len(lists)
            lines.append("constexpr BuiltInProperty %s[] = {" % lists[key])
            for name, in_type, out_type, length in schema.properties:
                lines.append('    {u"%s", %d, %d, %d},' % (name, in_type, out_type, length))
            lines.append("};")
    lines += ["", "constexpr BuiltInEventSchema kSchemas[] = {"]
    for schema in schemas:
        key = tuple(schema.properties)
        properties = "%s, %d" % (lists[key], len(key)) if key else "nullptr, 0"
        lines.append("    {%s, %d, %d, %s, %s, %s, %s}," % (
            guid_initializer(schema.guid), schema.event_id, schema.version,
            text_literal(schema.provider_name), text_literal(schema.task),
            text_literal(schema.opcode), properties))
    lines += [
        "};",
        "",
        "}  // namespace",
        "",
        "std::span<const BuiltInEventSchema> BuiltInEventSchemas() {",
        "    return kSchemas;",
        "}",
        "",
        "}  // namespace logonmon",
        "",
    ]
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true")
    parser.add_argument("manifests", type=Path)
    parser.add_argument("output", type=Path)
    args = parser.parse_args()

    schemas = []
    for file_name, event_ids in CONSUMED:
        schemas += manifest_schemas(args.manifests / file_name, set(event_ids))
    schemas += agent_schemas()
    schemas.sort(key=lambda s: (s.guid.lower(), s.event_id, s.version))
    text = render(schemas)

    if args.check:
        if not args.output.exists() or args.output.read_text() != text:
            print("%s is not what the generator writes from %s" % (args.output, args.manifests))
            return 1
        return 0
    args.output.write_text(text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
