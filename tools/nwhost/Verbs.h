// The verbs of the host program, one entry function each. Each verb sees its own name as argv[0]
// and its arguments behind it.
#pragma once

// nwhost script [--module PATH] [--cabinet N | --no-cabinet] [--registry FILE]
int NwhostScriptVerb(int argc, char** argv);
// nwhost xml FILE
int NwhostXmlVerb(int argc, char** argv);
// nwhost config [host options] [--reveal] list | get NAME | set NAME VALUE
int NwhostConfigVerb(int argc, char** argv);
// nwhost demo [--module PATH]
int NwhostDemoVerb(int argc, char** argv);
// nwhost mirror [--module PATH] [--registry FILE] [options] update | download LEAF |
//               delete-binary LEAF | check-connection
int NwhostMirrorVerb(int argc, char** argv);
// nwhost check [host options] [--json] [--timeout S] [--tool PATH] [--progress | --quiet]
int NwhostCheckVerb(int argc, char** argv);
// nwhost updates [the options of check] [--no-check]
int NwhostUpdatesVerb(int argc, char** argv);
// nwhost installed [the options of check] [--no-check]
int NwhostInstalledVerb(int argc, char** argv);
