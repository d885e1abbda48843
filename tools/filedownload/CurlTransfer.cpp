// The transfer by libcurl (Linux).
#include <curl/curl.h>
#include <sys/stat.h>

#include <cstdlib>

#include "filedownload/Transfer.h"

namespace filedownload {

namespace {

// Where the body goes. The status is looked at before the first byte is written, so that the
// page of a 404 or of a redirect never lands in the file.
struct Sink {
  CURL* curl = nullptr;
  StagedFile* file = nullptr;
  bool statusSeen = false;
  bool refused = false;
  bool writeFailed = false;
  uint64_t bytes = 0;
};

bool Success(long status) {
  return status >= 200 && status <= 299;
}

size_t WriteBody(char* data, size_t size, size_t count, void* user) {
  Sink& sink = *static_cast<Sink*>(user);
  const size_t n = size * count;
  if (!sink.statusSeen) {
    sink.statusSeen = true;
    long status = 0;
    curl_easy_getinfo(sink.curl, CURLINFO_RESPONSE_CODE, &status);
    sink.refused = !Success(status);
  }
  if (sink.refused) return 0;  // ends the transfer: the body of a failure is not wanted
  if (!sink.file->Write(data, n)) {
    sink.writeFailed = true;
    return 0;
  }
  sink.bytes += n;
  return n;
}

bool IsDirectory(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// EM_MENDER_CA_FILE is trusted in addition to the system's store. Setting CURLOPT_CAINFO replaces
// libcurl's default bundle file, so the system's certificates are kept through the hashed
// directory (CURLOPT_CAPATH): libcurl's own default one (Debian: /etc/ssl/certs), or that folder.
std::string TrustExtraCa(CURL* curl) {
  const char* caFile = std::getenv(kCaFileVariable);
  if (caFile == nullptr || *caFile == '\0') return std::string();
  const char* defaultDir = nullptr;
#if LIBCURL_VERSION_NUM >= 0x075400
  curl_easy_getinfo(curl, CURLINFO_CAPATH, &defaultDir);
#endif
  const std::string systemDir = defaultDir != nullptr ? defaultDir : "/etc/ssl/certs";
  curl_easy_setopt(curl, CURLOPT_CAINFO, caFile);
  if (IsDirectory(systemDir.c_str())) curl_easy_setopt(curl, CURLOPT_CAPATH, systemDir.c_str());
  return caFile;
}

void SetProxy(CURL* curl, const TransferRequest& request) {
  switch (request.proxyMode) {
    case ProxyMode::kNone:
      // "" turns off the proxy that http_proxy/https_proxy would otherwise bring in.
      curl_easy_setopt(curl, CURLOPT_PROXY, "");
      return;
    case ProxyMode::kPredefined:
      // The system's settings: libcurl reads http_proxy, https_proxy, all_proxy and no_proxy
      // (and their upper-case forms but HTTP_PROXY) itself when no proxy is set.
      break;
    case ProxyMode::kUserDefined:
      curl_easy_setopt(curl, CURLOPT_PROXY, request.proxyServer.c_str());
      // The proxy named on the command line serves every host, whatever no_proxy says.
      curl_easy_setopt(curl, CURLOPT_NOPROXY, "");
      break;
  }
  if (!request.proxyUser.empty()) {
    curl_easy_setopt(curl, CURLOPT_PROXYUSERNAME, request.proxyUser.c_str());
    curl_easy_setopt(curl, CURLOPT_PROXYPASSWORD, request.proxyPassword.c_str());
    curl_easy_setopt(curl, CURLOPT_PROXYAUTH, static_cast<unsigned long>(CURLAUTH_BASIC));
  }
}

std::string Kind(CURLcode rc) {
  switch (rc) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_CONNECT:
      return "cannot connect";
    case CURLE_OPERATION_TIMEDOUT:
      return "timed out";
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
      return "TLS failure";
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
      return "connection broken";
    default:
      return "transfer failed";
  }
}

}  // namespace

TransferResult Transfer(const TransferRequest& request, StagedFile& file) {
  TransferResult result;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    result.error = "libcurl cannot start";
    curl_global_cleanup();
    return result;
  }
  char detail[CURL_ERROR_SIZE] = "";
  Sink sink;
  sink.curl = curl;
  sink.file = &file;

  curl_easy_setopt(curl, CURLOPT_URL, request.target.url.c_str());
#if LIBCURL_VERSION_NUM >= 0x075500
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
#endif
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, detail);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
  curl_easy_setopt(curl, CURLOPT_USERAGENT, "FileDownLoad/1.0");
  // Large reads for large files, as the curl program does.
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 100L * 1024);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, WriteBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
  SetProxy(curl, request);
  if (request.target.secure) result.caFile = TrustExtraCa(curl);

  const CURLcode rc = curl_easy_perform(curl);
  long status = 0;
  long connectStatus = 0;
  curl_off_t expected = -1;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_getinfo(curl, CURLINFO_HTTP_CONNECTCODE, &connectStatus);
  curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
  result.httpStatus = status;
  result.bytes = sink.bytes;

  if (sink.writeFailed) {
    result.code = kExitLocalFile;
    result.error = file.Error();
  } else if (status != 0 && !Success(status)) {
    result.code = kExitHttpStatus;
    result.error = "HTTP status " + std::to_string(status);
    if (status >= 300 && status <= 399) result.error += " (redirects are not followed)";
  } else if (rc != CURLE_OK && status == 0 && connectStatus >= 300) {
    // The proxy refused the tunnel to an https server (407 without or with wrong credentials).
    result.httpStatus = connectStatus;
    result.code = kExitHttpStatus;
    result.error = "HTTP status " + std::to_string(connectStatus) + " from the proxy";
  } else if (rc == CURLE_PARTIAL_FILE || (rc == CURLE_OK && expected >= 0 && sink.bytes != uint64_t(expected))) {
    result.code = kExitTransferFailed;
    result.error = "short body: " + std::to_string(sink.bytes) + " of " + std::to_string(expected) +
                   " bytes, the connection closed early";
  } else if (rc != CURLE_OK) {
    result.code = kExitTransferFailed;
    result.error = Kind(rc) + ": " + (detail[0] != '\0' ? detail : curl_easy_strerror(rc)) + " (curl error " +
                   std::to_string(static_cast<int>(rc)) + ")";
  } else {
    result.code = kExitDone;
  }
  curl_easy_cleanup(curl);
  curl_global_cleanup();
  return result;
}

}  // namespace filedownload
