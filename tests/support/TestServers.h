// The test servers as the C++ tests see them: ports, credentials and the document root, read from
// the servers.env that tests/support/servers.py writes and ctest names in EM_TEST_SERVERS.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

struct TestServers {
  bool loaded = false;  // false when EM_TEST_SERVERS is unset or its file is missing or incomplete
  std::string www;      // the document root of nginx, as servers.env has it (a Unix path)
  int httpPort = 0, httpsPort = 0, proxyPort = 0, authProxyPort = 0, faultPort = 0;
  std::string caFile;  // the test CA (PEM), as the program under test opens it (see NativePath)
  std::string proxyUser, proxyPassword;

  static TestServers Load() {
    TestServers servers;
    const char* env = std::getenv("EM_TEST_SERVERS");
    if (env == nullptr || *env == '\0') return servers;
    std::ifstream in(NativePath(env));
    if (!in) return servers;
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      size_t eq = line.find('=');
      if (eq == std::string::npos) continue;
      std::string key = line.substr(0, eq), value = line.substr(eq + 1);
      std::string* text = key == "WWW"              ? &servers.www
                          : key == "CA_FILE"        ? &servers.caFile
                          : key == "PROXY_USER"     ? &servers.proxyUser
                          : key == "PROXY_PASSWORD" ? &servers.proxyPassword
                                                    : nullptr;
      int* port = key == "HTTP_PORT"         ? &servers.httpPort
                  : key == "HTTPS_PORT"      ? &servers.httpsPort
                  : key == "PROXY_PORT"      ? &servers.proxyPort
                  : key == "AUTH_PROXY_PORT" ? &servers.authProxyPort
                  : key == "FAULT_PORT"      ? &servers.faultPort
                                             : nullptr;
      if (text != nullptr) {
        *text = value;
      } else if (port != nullptr) {
        char* end = nullptr;
        long number = std::strtol(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || number <= 0 || number > 65535) return TestServers();
        *port = static_cast<int>(number);
      }
    }
    servers.caFile = NativePath(servers.caFile);
    servers.loaded = !servers.www.empty() && !servers.caFile.empty() && !servers.proxyUser.empty() &&
                     !servers.proxyPassword.empty() && servers.httpPort != 0 && servers.httpsPort != 0 &&
                     servers.proxyPort != 0 && servers.authProxyPort != 0 && servers.faultPort != 0;
    return servers;
  }

  // The path of a folder below the document root for a test to fill, created with its parents;
  // served at http://127.0.0.1:httpPort/<sub>. A Unix path natively, the Z: form under Wine.
  std::string WwwPath(const std::string& sub) const {
    std::string path = NativePath(www + "/" + sub);
    std::error_code ignored;  // a folder that cannot be made shows in the test that fills it
    std::filesystem::create_directories(std::filesystem::path(path), ignored);
    return path;
  }

  // A path as the program under test opens it: unchanged natively; under Wine the Unix paths of
  // servers.env are reached through drive Z:.
  static std::string NativePath(const std::string& unixPath) {
#ifdef _WIN32
    if (!unixPath.empty() && unixPath[0] == '/') {
      std::string path = "Z:" + unixPath;
      for (char& c : path)
        if (c == '/') c = '\\';
      return path;
    }
#endif
    return unixPath;
  }
};
