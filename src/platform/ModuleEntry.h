// The load and unload notifications of the module file, delivered by the platform's entry point
// (DllMain on Windows, constructor and destructor functions of the shared object on POSIX).
#pragma once

// Implemented by the module; return false to refuse the load.
bool EmOnProcessAttach();
void EmOnProcessDetach();
