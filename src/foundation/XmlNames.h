// Look-ups in the two generated name tables of the XML class: HTML character entities and
// charset names. Both lower the name first and take the first entry of its bucket that matches.
#pragma once

#include "base/WString.h"

// Code point of a named entity ("amp", "nbsp", "Oslash", ...), or -1.
int XmlEntityCodePoint(WStringView name);

// Code page of a charset name from the table alone, or -1 (no special names here).
int XmlCharsetTableLookup(WStringView name);
