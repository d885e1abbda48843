// The verbs of the host program, one entry function each.
#pragma once

// nwhost script [--module PATH] [--cabinet N | --no-cabinet] [--registry FILE]
int NwhostScriptVerb(int argc, char** argv);
// nwhost xml FILE
int NwhostXmlVerb(int argc, char** argv);
// nwhost demo [--module PATH]
int NwhostDemoVerb(int argc, char** argv);
