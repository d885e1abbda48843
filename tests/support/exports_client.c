/* exports_client: an outside program of the module file's four repository functions, written in
 * C as such programs are. It knows the settings record only as 2612 bytes with fields at fixed
 * offsets and fills it byte by byte, strings as UTF-16LE code units, so that a run against the
 * module file holds the record's layout to what those programs rely on.
 *
 *   exports_client MODULE FUNCTION [options]
 *     FUNCTION  updateTree | download | checkWebConnection | deleteBinary
 *     --server S  --path P  --https  --proxy-mode N  --proxy HOST:PORT  --proxy-user U
 *     --proxy-password P  --repository DIR  --leaf REL  --log-file F  --dnl-flags N
 *     --null-record  --null-repository  --null-leaf   pass a null pointer instead
 *
 * Prints "result: N" (the function's value) and exits 0; exits 2 with one line on standard error
 * when it cannot make the call (usage, module file, missing export). */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <dlfcn.h>
#endif

/* The record's layout: the byte offsets an outside program writes to. */
enum {
  kRecordSize = 2612,
  kFieldUnits = 260, /* every string field, its terminator included */
  kProxyModeAt = 0,
  kServerAt = 4,
  kPathAt = 524,
  kProtocolAt = 1044,
  kProxyPortAt = 1048,
  kProxyServerAt = 1052,
  kProxyUserAt = 1572,
  kProxyPasswordAt = 2092
};

typedef uint16_t unit; /* one UTF-16 code unit: the module's char16_t */

typedef int (*UpdateTreeFn)(const void* record, const unit* repository, const unit* logFile, int dnlFlags);
typedef int (*DownloadFn)(const void* record, const unit* repository, const unit* componentPath, const unit* logFile,
                          int dnlFlags);
typedef int (*CheckWebConnectionFn)(const void* record);
typedef int (*DeleteBinaryFn)(const unit* repository, const unit* componentPath);

static int refuse(const char* what, const char* detail) {
  fprintf(stderr, "exports_client: %s%s\n", what, detail ? detail : "");
  return 2;
}

/* UTF-8 to UTF-16 (never more units than bytes), terminated; NULL for bytes that are not UTF-8. */
static unit* utf16_from_utf8(const char* text) {
  const unsigned char* s = (const unsigned char*)text;
  size_t n = strlen(text);
  unit* out = malloc((n + 1) * sizeof(unit));
  size_t i = 0, k = 0;
  if (!out) return NULL;
  while (i < n) {
    uint32_t c = s[i];
    size_t more, j;
    if (c < 0x80)
      more = 0;
    else if (c >= 0xC2 && c < 0xE0)
      more = 1;
    else if (c >= 0xE0 && c < 0xF0)
      more = 2;
    else if (c >= 0xF0 && c < 0xF5)
      more = 3;
    else
      break;
    if (i + more >= n) break;
    if (more) c &= 0x3Fu >> more;
    for (j = 1; j <= more; ++j) {
      if ((s[i + j] & 0xC0) != 0x80) break;
      c = (c << 6) | (s[i + j] & 0x3Fu);
    }
    if (j <= more) break;
    if ((more == 2 && (c < 0x800 || (c >= 0xD800 && c < 0xE000))) || (more == 3 && (c < 0x10000 || c > 0x10FFFF)))
      break;
    if (c >= 0x10000) {
      c -= 0x10000;
      out[k++] = (unit)(0xD800 | (c >> 10));
      out[k++] = (unit)(0xDC00 | (c & 0x3FF));
    } else {
      out[k++] = (unit)c;
    }
    i += more + 1;
  }
  if (i < n) {
    free(out);
    return NULL;
  }
  out[k] = 0;
  return out;
}

/* A string field: at most 259 units, then the terminator, each unit low byte first. */
static int put_text(unsigned char* record, size_t at, const char* utf8) {
  unit* text = utf16_from_utf8(utf8);
  size_t i;
  if (!text) return 0;
  for (i = 0; i < kFieldUnits - 1 && text[i]; ++i) {
    record[at + 2 * i] = (unsigned char)(text[i] & 0xFF);
    record[at + 2 * i + 1] = (unsigned char)(text[i] >> 8);
  }
  record[at + 2 * i] = 0;
  record[at + 2 * i + 1] = 0;
  free(text);
  return 1;
}

static void put_int32(unsigned char* record, size_t at, int32_t value) {
  uint32_t v = (uint32_t)value;
  record[at] = (unsigned char)(v & 0xFF);
  record[at + 1] = (unsigned char)((v >> 8) & 0xFF);
  record[at + 2] = (unsigned char)((v >> 16) & 0xFF);
  record[at + 3] = (unsigned char)(v >> 24);
}

/* A whole decimal number in [least, most]. */
static int parse_number(const char* text, long least, long most, long* value) {
  char* end = NULL;
  long number;
  if (!*text) return 0;
  number = strtol(text, &end, 10);
  if (*end || number < least || number > most) return 0;
  *value = number;
  return 1;
}

static void* load_module(const char* path) {
#ifdef _WIN32
  unit* wide = utf16_from_utf8(path);
  HMODULE module = wide ? LoadLibraryW((const wchar_t*)wide) : NULL;
  free(wide);
  return (void*)module;
#else
  return dlopen(path, RTLD_NOW | RTLD_LOCAL);
#endif
}

/* The export's address as a function pointer; copied, since C converts no object pointer to one. */
static int find_export(void* module, const char* name, void* fn, size_t size) {
#ifdef _WIN32
  FARPROC address = GetProcAddress((HMODULE)module, name);
#else
  void* address = dlsym(module, name);
#endif
  if (!address) return 0;
  memcpy(fn, &address, size);
  return 1;
}

static int run(int argc, char** argv) {
  _Alignas(8) unsigned char record[kRecordSize];
  const char* repository = "";
  const char* leaf = "";
  const char* logFile = "";
  int nullRecord = 0, nullRepository = 0, nullLeaf = 0, result = 0, i;
  long dnlFlags = 0, number = 0;
  unit *wRepository = NULL, *wLeaf = NULL, *wLogFile = NULL;
  void* module;
  const char* function;

  if (argc < 3)
    return refuse("usage: exports_client MODULE updateTree|download|checkWebConnection|deleteBinary [options]", NULL);
  function = argv[2];
  memset(record, 0, sizeof record);
  for (i = 3; i < argc; ++i) {
    const char* arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : NULL;
    int ok = 1;
    if (strcmp(arg, "--https") == 0) {
      record[kProtocolAt] = 1;
      continue;
    }
    if (strcmp(arg, "--null-record") == 0) {
      nullRecord = 1;
      continue;
    }
    if (strcmp(arg, "--null-repository") == 0) {
      nullRepository = 1;
      continue;
    }
    if (strcmp(arg, "--null-leaf") == 0) {
      nullLeaf = 1;
      continue;
    }
    if (!value) return refuse("option without its value: ", arg);
    ++i;
    if (strcmp(arg, "--server") == 0) {
      ok = put_text(record, kServerAt, value);
    } else if (strcmp(arg, "--path") == 0) {
      ok = put_text(record, kPathAt, value);
    } else if (strcmp(arg, "--proxy-mode") == 0) {
      ok = parse_number(value, 0, 255, &number);
      record[kProxyModeAt] = (unsigned char)number;
    } else if (strcmp(arg, "--proxy") == 0) {
      const char* colon = strrchr(value, ':');
      char* host;
      if (!colon || !parse_number(colon + 1, 1, 65535, &number)) return refuse("--proxy takes HOST:PORT: ", value);
      host = malloc((size_t)(colon - value) + 1);
      if (!host) return refuse("out of memory", NULL);
      memcpy(host, value, (size_t)(colon - value));
      host[colon - value] = '\0';
      ok = put_text(record, kProxyServerAt, host);
      free(host);
      put_int32(record, kProxyPortAt, (int32_t)number);
    } else if (strcmp(arg, "--proxy-user") == 0) {
      ok = put_text(record, kProxyUserAt, value);
    } else if (strcmp(arg, "--proxy-password") == 0) {
      ok = put_text(record, kProxyPasswordAt, value);
    } else if (strcmp(arg, "--repository") == 0) {
      repository = value;
    } else if (strcmp(arg, "--leaf") == 0) {
      leaf = value;
    } else if (strcmp(arg, "--log-file") == 0) {
      logFile = value;
    } else if (strcmp(arg, "--dnl-flags") == 0) {
      ok = parse_number(value, INT32_MIN, INT32_MAX, &dnlFlags);
    } else {
      return refuse("unknown option: ", arg);
    }
    if (!ok) return refuse("bad value for ", arg);
  }

  module = load_module(argv[1]);
  if (!module) return refuse("cannot load the module file ", argv[1]);
  wRepository = utf16_from_utf8(repository);
  wLeaf = utf16_from_utf8(leaf);
  wLogFile = utf16_from_utf8(logFile);
  if (!wRepository || !wLeaf || !wLogFile) return refuse("a path is not UTF-8", NULL);

  if (strcmp(function, "updateTree") == 0) {
    UpdateTreeFn fn;
    if (!find_export(module, function, &fn, sizeof fn)) return refuse("no export ", function);
    result = fn(nullRecord ? NULL : record, nullRepository ? NULL : wRepository, wLogFile, (int)dnlFlags);
  } else if (strcmp(function, "download") == 0) {
    DownloadFn fn;
    if (!find_export(module, function, &fn, sizeof fn)) return refuse("no export ", function);
    result = fn(nullRecord ? NULL : record, nullRepository ? NULL : wRepository, nullLeaf ? NULL : wLeaf, wLogFile,
                (int)dnlFlags);
  } else if (strcmp(function, "checkWebConnection") == 0) {
    CheckWebConnectionFn fn;
    if (!find_export(module, function, &fn, sizeof fn)) return refuse("no export ", function);
    result = fn(nullRecord ? NULL : record);
  } else if (strcmp(function, "deleteBinary") == 0) {
    DeleteBinaryFn fn;
    if (!find_export(module, function, &fn, sizeof fn)) return refuse("no export ", function);
    result = fn(nullRepository ? NULL : wRepository, nullLeaf ? NULL : wLeaf);
  } else {
    return refuse("unknown function: ", function);
  }
  printf("result: %d\n", result);
  fflush(stdout);
  free(wRepository);
  free(wLeaf);
  free(wLogFile);
  return 0;
}

#ifdef _WIN32
/* The arguments as UTF-16 from the system, passed on as UTF-8. */
int wmain(int argc, wchar_t** wargv) {
  char** argv = calloc((size_t)argc + 1, sizeof(char*));
  int i;
  if (!argv) return 2;
  for (i = 0; i < argc; ++i) {
    int size = WideCharToMultiByte(CP_UTF8, 0, wargv[i], -1, NULL, 0, NULL, NULL);
    argv[i] = malloc(size > 0 ? (size_t)size : 1);
    if (!argv[i]) return 2;
    argv[i][0] = '\0';
    if (size > 0) WideCharToMultiByte(CP_UTF8, 0, wargv[i], -1, argv[i], size, NULL, NULL);
  }
  /* Lines end in a plain line feed, as on every other platform. */
  _setmode(_fileno(stdout), _O_BINARY);
  return run(argc, argv);
}
#else
int main(int argc, char** argv) {
  return run(argc, argv);
}
#endif
