// The host installation's directories, named in the registry, with their fall-back chains.
// Values read from the registry lose one trailing separator (not a bare drive's "C:\").
#pragma once

#include "base/WString.h"

// The host's registry base: the value "Node Warden" of the host's UUID key, else the fixed
// product key.
WString ReadHostBaseKeyPath();
WString ReadSetupKeyPath();  // base + "\Setup"
WString ReadDataKeyPath();   // base + "\DATA"

// A string value below HKEY_LOCAL_MACHINE; expandable strings come back expanded. 1 if read.
int ReadRegistryString(WStringView keyPath, WStringView valueName, WString& out);

// DataRoot (data key), else the system's temporary directory.
const WString& ReadDataRoot(WString& out);
// TempRoot (setup key), else ReadDataRoot.
const WString& ReadTempRoot(WString& out);
// FileRoot (setup key), else the current directory.
const WString& ReadFileRoot(WString& out);
// BinRoot (setup key), else FileRoot, else the current directory, else ReadFileRoot + "\Bin".
const WString& ReadBinRoot(WString& out);

// The system's temporary directory as the system gives it, with its trailing separator.
WString SystemTempDirectory();
// The current directory without a trailing separator; empty if the system gives fewer than 2
// characters.
WString CurrentDirectoryText();

// The native separator where the system's paths use a backslash.
inline constexpr char16_t kSep =
#ifdef _WIN32
    u'\\';
#else
    u'/';
#endif
