// The transfer tool that the module runs once per file of a download server.
#include <string>
#include <vector>

#include "filedownload/FileDownLoad.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <stdio.h>

#include "filedownload/WinText.h"

// The wide entry point (-municode): file names and proxy credentials outside the ANSI code page
// arrive whole.
int wmain(int argc, wchar_t** argv) {
  // Lines end in a plain line feed, as on Linux, so that the module reads the same output.
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) args.push_back(filedownload::Utf8FromWide(argv[i]));
  return filedownload::RunFileDownLoad(args);
}

#else

int main(int argc, char** argv) {
  return filedownload::RunFileDownLoad(std::vector<std::string>(argv + 1, argv + argc));
}

#endif
