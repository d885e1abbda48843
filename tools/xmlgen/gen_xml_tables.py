#!/usr/bin/env python3
"""Generates src/foundation/XmlNameTables.inc: the named-entity table and the charset table of
XmlDocument.

Entity table: the HTML 4.01 character entity sets (HTMLlat1, HTMLsymbol, HTMLspecial, as the W3C
publishes them; Debian's w3c-sgml-lib installs them) plus "apos". 130 buckets; the bucket of a name
is the sum of the character codes of its lower-cased form modulo 130. An entry is one digit with
the name's length, four digits with the code point and the lower-cased name; a bucket is the
entries one after another, ended by the NUL of the string literal. Within a bucket the entries
stand in the order of their code points, so that of two names that differ only in case the one
with the lower code point is found first ("Oslash" 216 before "oslash" 248): a lookup lowers the
name and takes the first match.

Charset table: the customary names of the code pages of the operating system (the MIME charset
names and their aliases, as the platform's charset database lists them, with the "cpNNN" and
"windows-NNN" forms), limited to the code pages that both builds convert (iconv has no HZ and no
DOS Arabic 720). 155 buckets with the same hash; an entry is two digits with the name's
length, five digits with the code page and the lower-cased name.

Usage: gen_xml_tables.py [ENTITY_DIR] > src/foundation/XmlNameTables.inc
"""
import glob
import os
import re
import sys

ENTITY_BUCKETS = 130
CHARSET_BUCKETS = 155
DEFAULT_DIR = "/usr/share/xml/w3c-sgml-lib/schema/dtd/REC-html401-19991224"
ENTITY_FILES = ("HTMLlat1.ent", "HTMLsymbol.ent", "HTMLspecial.ent")

# Code page -> the names by which documents declare it.
CHARSETS = {
    65001: "utf-8 unicode-1-1-utf-8 unicode-2-0-utf-8 x-unicode20utf8 utf8",
    65000: "utf-7 unicode-1-1-utf-7 unicode-2-0-utf-7 x-unicode20utf7 csunicode11utf7",
    1200: "utf-16 utf-16le unicode ucs-2 iso-10646-ucs-2 csunicode unicodefeff",
    1201: "utf-16be unicodefffe",
    20127: "us-ascii ascii us ansi_x3.4-1968 ansi_x3.4-1986 cp367 csascii ibm367 iso-ir-6 "
           "iso646-us iso_646.irv:1991",
    28591: "iso-8859-1 cp819 csisolatin1 ibm819 iso-ir-100 iso8859-1 iso_8859-1 iso_8859-1:1987 l1 latin1",
    28592: "iso-8859-2 csisolatin2 iso-ir-101 iso8859-2 iso_8859-2 iso_8859-2:1987 l2 latin2",
    28593: "iso-8859-3 csisolatin3 iso-ir-109 iso8859-3 iso_8859-3 iso_8859-3:1988 l3 latin3",
    28594: "iso-8859-4 csisolatin4 iso-ir-110 iso8859-4 iso_8859-4 iso_8859-4:1988 l4 latin4",
    28595: "iso-8859-5 csisolatincyrillic cyrillic iso-ir-144 iso8859-5 iso_8859-5 iso_8859-5:1988",
    28596: "iso-8859-6 arabic csisolatinarabic ecma-114 iso-ir-127 iso8859-6 iso_8859-6 iso_8859-6:1987",
    28597: "iso-8859-7 csisolatingreek ecma-118 elot_928 greek greek8 iso-ir-126 iso8859-7 iso_8859-7 "
           "iso_8859-7:1987",
    28598: "iso-8859-8 csisolatinhebrew hebrew iso-ir-138 iso8859-8 iso_8859-8 iso_8859-8:1988 "
           "iso-8859-8-visual visual",
    38598: "iso-8859-8-i logical",
    28599: "iso-8859-9 csisolatin5 iso-ir-148 iso8859-9 iso_8859-9 iso_8859-9:1989 l5 latin5",
    28603: "iso-8859-13 iso8859-13",
    28605: "iso-8859-15 csisolatin9 iso8859-15 iso_8859-15 l9 latin9",
    874: "windows-874 dos-874 tis-620 iso-8859-11 cp874",
    1250: "windows-1250 x-cp1250 cp1250",
    1251: "windows-1251 x-cp1251 cp1251",
    1252: "windows-1252 x-ansi cp1252",
    1253: "windows-1253 cp1253",
    1254: "windows-1254 cp1254",
    1255: "windows-1255 cp1255",
    1256: "windows-1256 cp1256",
    1257: "windows-1257 cp1257",
    1258: "windows-1258 cp1258",
    932: "shift_jis shift-jis csshiftjis cswindows31j ms_kanji x-ms-cp932 x-sjis sjis windows-31j cp932",
    936: "gb2312 gbk chinese cn-gb csgb2312 csgb231280 csiso58gb231280 gb2312-80 gb231280 gb_2312-80 "
         "iso-ir-58 x-gbk cp936 windows-936",
    54936: "gb18030",
    51936: "euc-cn x-euc-cn",
    949: "ks_c_5601-1987 csksc56011987 iso-ir-149 korean ks_c_5601 ks_c_5601-1989 ks_c_5601_1987 "
         "ksc5601 ksc_5601 cp949 uhc windows-949",
    51949: "euc-kr cseuckr",
    50225: "iso-2022-kr csiso2022kr",
    1361: "johab",
    950: "big5 big5-hkscs cn-big5 csbig5 x-x-big5 cp950",
    51932: "euc-jp cseucpkdfmtjapanese x-euc x-euc-jp",
    50220: "iso-2022-jp",
    50221: "csiso2022jp",
    437: "ibm437 cp437 437 cspc8codepage437",
    737: "ibm737 cp737",
    775: "ibm775 cp775 cspc775baltic",
    850: "ibm850 cp850 850 cspc850multilingual",
    852: "ibm852 cp852",
    855: "ibm855 cp855",
    857: "ibm857 cp857",
    858: "ibm00858 ccsid00858 cp00858 cp858 pc-multilingual-850+euro",
    860: "ibm860 cp860",
    861: "ibm861 cp861",
    862: "dos-862 ibm862 cp862",
    863: "ibm863 cp863",
    864: "ibm864 cp864",
    865: "ibm865 cp865",
    866: "cp866 ibm866 csibm866",
    869: "ibm869 cp869",
    708: "asmo-708",
    20866: "koi8-r cskoi8r koi koi8 koi8r",
    21866: "koi8-u koi8-ru",
    10000: "macintosh x-mac-roman mac",
    10007: "x-mac-cyrillic",
    37: "ibm037 cp037 csibm037 ebcdic-cp-ca ebcdic-cp-nl ebcdic-cp-us ebcdic-cp-wt",
    500: "ibm500 cp500 csibm500 ebcdic-cp-be ebcdic-cp-ch",
    1026: "ibm1026 cp1026 csibm1026",
    1047: "ibm01047 cp1047",
    20273: "ibm273 cp273 csibm273",
}


def bucket_of(name, buckets):
    return sum(ord(c) for c in name) % buckets


def read_entities(directory):
    entities = []
    pattern = re.compile(r'<!ENTITY\s+([A-Za-z][A-Za-z0-9]*)\s+CDATA\s+"&#(\d+);"')
    for file_name in ENTITY_FILES:
        path = os.path.join(directory, file_name)
        with open(path, encoding="latin-1") as f:
            text = f.read()
        found = pattern.findall(text)
        if not found:
            sys.exit("no entities in " + path)
        entities.extend((name, int(code)) for name, code in found)
    entities.append(("apos", 39))
    return entities


def c_literal(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def emit_table(out, symbol, buckets, entries, name_width, code_width):
    table = [[] for _ in range(buckets)]
    for name, code in sorted(entries, key=lambda e: (e[1], e[0])):
        lowered = name.lower()
        if len(str(len(lowered))) > name_width or len(str(code)) > code_width:
            sys.exit("entry does not fit: %s %d" % (name, code))
        entry = "%0*d%0*d%s" % (name_width, len(lowered), code_width, code, lowered)
        table[bucket_of(lowered, buckets)].append(entry)
    out.write("static const char* const %s[%d] = {\n" % (symbol, buckets))
    for bucket in table:
        out.write("    %s,\n" % c_literal("".join(bucket)))
    out.write("};\n\n")


def main():
    directory = sys.argv[1] if len(sys.argv) > 1 else DEFAULT_DIR
    if not os.path.isdir(directory):
        candidates = glob.glob("/usr/share/xml/**/HTMLlat1.ent", recursive=True)
        if not candidates:
            sys.exit("HTMLlat1.ent not found; install w3c-sgml-lib")
        directory = os.path.dirname(candidates[0])
    entities = read_entities(directory)
    charsets = []
    seen = set()
    for code_page, names in CHARSETS.items():
        for name in names.split():
            if name in seen:
                sys.exit("charset alias listed twice: " + name)
            seen.add(name)
            charsets.append((name, code_page))
    out = sys.stdout
    out.write("// Generated by tools/xmlgen/gen_xml_tables.py; do not edit.\n")
    out.write("// %d named entities (HTML 4.01 character entity sets and \"apos\"), %d charset names.\n"
              % (len(entities), len(charsets)))
    out.write("#pragma once\n\n")
    out.write("constexpr unsigned kXmlEntityBuckets = %d;\n" % ENTITY_BUCKETS)
    out.write("constexpr unsigned kXmlCharsetBuckets = %d;\n\n" % CHARSET_BUCKETS)
    out.write("// Entry: 1 digit name length, 4 digits code point, lower-cased name.\n")
    emit_table(out, "kXmlEntityTable", ENTITY_BUCKETS, entities, 1, 4)
    out.write("// Entry: 2 digits name length, 5 digits code page, lower-cased name.\n")
    emit_table(out, "kXmlCharsetTable", CHARSET_BUCKETS, charsets, 2, 5)


if __name__ == "__main__":
    main()
