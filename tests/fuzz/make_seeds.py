#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (tests/fuzz/corpus/<target>/).

The seeds are the documents of docs/*.md and the requests and files that
the suites under tests/ use, a few per behaviour, small on purpose. Run it
again after changing a seed here; the files are committed.
"""
import hashlib
import json
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))

RULE = {
    "name": "build-tools", "all_allowed": "false", "extended": "false",
    "system": "false", "enable": "true", "user_list": ["alice"],
    "group_list": "", "resource_list": ["/usr/bin/make", "/usr/bin/gcc"],
}


def rule(**changes):
    r = dict(RULE)
    r.update(changes)
    return r


def dumps(value):
    return json.dumps(value, indent=4)


RULE_FILES = [
    dumps(RULE),
    dumps(rule(user_list="", group_list="", resource_list="")),
    dumps(rule(all_allowed="1", system="true", enable="0")),
    dumps(rule(user_list={"a": "x", "b": "y"})),
    dumps(rule(name="../x")),
    dumps(rule(name="caf\u00e9", resource_list=["/opt/\u00e9t\u00e9"])),
    dumps(rule(extended="yes")),
    dumps({k: v for k, v in RULE.items() if k != "enable"}),
    dumps([RULE, rule(name="r2", resource_list=["/bin/true"])]),
    '{"name": "r1", "all_allowed": "false", "extended": "false", "system":'
    ' "false", "enable": "true", "user_list": "", "group_list": "",'
    ' "resource_list": ["\\/usr\\/bin\\/make"]}',
    '{"name": "x", "all_allowed": "false"',
    "",
]

WHITELIST_FILES = [
    dumps({"user_list": ["alice@corp", "corp\\bob"], "group_list": ["devs@corp"]}),
    dumps({"user_list": "", "group_list": ""}),
    dumps({"user_list": ["alice"]}),
    dumps({"user_list": {"a": "alice"}, "group_list": {"b": "wheel"}, "extra": 1}),
    '{"user_list": [', "[]",
]

EXCEPTION_FILES = [
    dumps({"resource_list": ["/opt/app/bin/tool", "/usr/lib/libextra.so"]}),
    dumps({"resource_list": ""}),
    dumps({"resource_list": ["/b", "/a", "/a"]}),
    dumps({"other": []}),
    '{"resource_list": {"x": "\\/opt\\/y"}}', '{"resource_list": [',
    # Beside the list, nesting one level past the configuration files' bound
    # (64) and right at it.
    '{"resource_list": ["/a"], "x": ' + "[" * 64 + "]" * 64 + "}",
    '{"resource_list": ["/a"], "x": ' + "[" * 63 + "]" * 63 + "}",
]

POLICY_KERNEL = ("state", "mode", "log_perm_exec", "log_deny_exec",
                 "log_perm_openlib", "log_deny_openlib", "log_perm_openfile",
                 "log_deny_openfile")

SET_POLICIES = """<policies>
  <policy group="aec" name="state" source="dorvi"><type>1</type></policy>
  <policy group="aec" name="mode" source="dorvi"><type>0</type></policy>
  <policy group="aec" name="log_perm_exec" source="dorvi"><type>1</type></policy>
  <policy group="aec" name="log_deny_openfile" source="dorvi"><type>0</type></policy>
  <policy group="aec" name="whitelist" source="dorvi">
    <value>*S-1-5-21-3623811015-3361044348-30300820-1013,*S-1-5-21-3623811015-3361044348-30300820-512</value>
  </policy>
  <policy group="aec" name="exceptions" source="dorvi">
    <value><r>/opt/app/bin/tool</r><r>/usr/lib/libextra.so</r></value>
  </policy>
  <policy group="aec" name="rules" source="dorvi">
    <value>
      <rule>
        <name>build-tools</name><all_allowed>false</all_allowed>
        <extended>false</extended><system>false</system><enable>true</enable>
        <user_list><u>alice</u></user_list><group_list/>
        <resource_list><r>/usr/bin/make</r><r>/usr/bin/gcc</r></resource_list>
      </rule>
    </value>
  </policy>
</policies>"""

POLICIES_XML = [
    SET_POLICIES,
    '<policies><policy group="aec_control" name="mode" source="dorvi"><type>2</type></policy></policies>',
    '<policies><policy group="aec" name="state" source="yunko"><type>1</type></policy>'
    '<policy group="aec" name="mode" source="yunko"><type>1</type></policy></policies>',
    '<policies><policy name="whitelist" source="dorvi"><value>root,*S-1-5-21-1-2-3-1000,*S-1-5-21-1-2-3-1004</value></policy></policies>',
    '<policies><policy name="rules"><value/></policy><policy name="exceptions"><value/></policy></policies>',
    '<policies><policy name="rules"><value><rule><name>../x</name></rule></value></policy></policies>',
    '<policies><policy name="nope"><value>1</value></policy><policy group="other" name="state"><type>1</type></policy></policies>',
    '<policies><policy name="whitelist" source="local"><value/></policy></policies>',
    '<policies><policy name="exceptions" source="dorvi"><value>text</value></policy></policies>',
]

IMPORT = {"policies": [
    {"group": "aec", "name": "state", "source": "yunko", "value": "1"},
    {"group": "aec", "name": "mode", "source": "yunko", "value": "1"},
    {"group": "aec", "name": "log_perm_openfile", "source": "yunko", "value": "0"},
    {"group": "aec", "name": "whitelist", "source": "yunko", "value": [
        {"name": "alice", "type": "user"}, {"name": "wheel", "type": "group"}]},
    {"group": "aec", "name": "exceptions", "source": "yunko",
     "value": ["/opt/app/bin/tool", "/usr/lib/libextra.so"]},
    {"group": "aec", "name": "rules", "source": "yunko", "value": [RULE]},
]}

IMPORT_JSON = [
    dumps(IMPORT),
    dumps({"policies": [
        {"group": "aec", "name": "log_perm_exec", "value": "0"},
        {"group": "aec", "name": "no_such_policy", "value": "1"},
        {"group": "other", "name": "state", "value": "1"}]}),
    dumps({"policies": [{"name": "rules", "value": []},
                        {"name": "exceptions", "value": ""},
                        {"name": "whitelist", "value": {}}]}),
    dumps({"policies": [{"name": "whitelist", "value": [{"name": "x"}]}]}),
    dumps({"policies": [{"name": "whitelist", "source": "dorvi",
                         "value": "*S-1-5-21-1-2-3-1001,*S-1-5-21-1-2-3-1004"}]}),
    dumps({"policies": [{"group": "aec_control", "name": "mode", "value": "2"}]}),
    dumps({"policies": [{"name": "rules", "value": [rule(name="a/b"), rule(name="r1"), rule(name="r1", enable="false")]}]}),
    dumps({"policies": {"name": "state"}}),
]

WHITELIST_SERVER = [
    "root,*S-1-5-21-1-2-3-1001,*S-1-5-21-1-2-3-1002,*S-1-5-21-1-2-3-2001",
    "*S-1-5-21-1-2-3-1000,*S-1-5-21-1-2-3-1004",
    "*S-1-5-21-1-2-3-1003",
    "*S-1-5-21-1-2-3-x",
    "*S-1-5-21-1-2-3-1005, *S-1-5-21-1-2-3-1006",
    "*S-1-5",
    "*S-255-281474976710655-4294967295",
    dumps([{"name": "alice", "type": "user"}, {"name": "wheel", "type": "group"}]),
    dumps([{"name": "alice"}]),
    "",
]

REQUESTS = [
    '<request command="get" whitelist="1" rule_resource="1"><rule>build-tools</rule></request>',
    '<request command="get" whitelist="1" resource-exception="1"><rule/></request>',
    '<request command="get"><rule>../rules/r1</rule></request>',
    '<request command="add"><rule name="r1" recursive="1"><u>alice</u><u>bob</u><r>/usr/bin/make</r></rule></request>',
    '<request command="add"><whitelist><u>bob</u><g>wheel</g></whitelist><resource-exception><r>/opt/x</r></resource-exception></request>',
    '<request command="edit"><rule name="r1" state="0" rename="r2"><remove><u>alice</u></remove></rule></request>',
    '<request command="edit"><rule name="r1"><add all-users="1"><r>/p</r></add><update all-users="1" extended="1"><r>/q</r></update></rule></request>',
    '<request command="remove" all_rules="1"><rule><name>r1</name></rule></request>',
    '<request command="remove"><rule><name>r1</name><name>r2</name></rule><whitelist><u>u</u></whitelist><resource-exception><r>/p</r></resource-exception></request>',
    '<request command="export" name="r1" file="/tmp/r1.json"/>',
    '<request command="export" name="r1" file=""/>',
    '<request command="reload"/>',
    '<request command="log"><execfile>/usr/bin/make</execfile><operationresult>all</operationresult><openfiles>1</openfiles></request>',
    '<request command="log"><user>o\'brien</user></request>',
    '<request command="loglist"><users>1</users><groups>1</groups><execfiles>1</execfiles><inittime>1793491200</inittime><finaltime>1795305600</finaltime><operationresult>success</operationresult></request>',
    '<request command="confirm_hard_mode"/>',
    '<request command="status_confirmation"/>',
    '<request command="reset_policies"><source>dorvi</source></request>',
    '<request command="reset_policy"/>',
    '<request command="Get"/>',
    '<request><rule/></request>',
]

STRUCTURED = [
    bytes(range(0, 64)),
    b"\x01\x00\x02" * 20,
    b"\x00\x07\x03rule\x01name\x01r1" * 3,
    b"\xff" * 40,
]

TARGETS = {
    "rule_file": RULE_FILES,
    "whitelist_file": WHITELIST_FILES,
    "exceptions_file": EXCEPTION_FILES,
    "policies_xml": POLICIES_XML,
    "import_json": IMPORT_JSON,
    "whitelist_server": WHITELIST_SERVER,
    "request_xml": REQUESTS,
    "request_structured": STRUCTURED,
}


def main():
    for target, seeds in TARGETS.items():
        directory = os.path.join(HERE, "corpus", target)
        os.makedirs(directory, exist_ok=True)
        for old in os.listdir(directory):
            # Inputs that once found a fault stay: CI replays them.
            if not old.startswith("regression-"):
                os.unlink(os.path.join(directory, old))
        for seed in seeds:
            data = seed if isinstance(seed, bytes) else seed.encode("utf-8")
            name = hashlib.sha1(data).hexdigest()
            with open(os.path.join(directory, name), "wb") as out:
                out.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
