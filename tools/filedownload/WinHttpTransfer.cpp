// The transfer by WinHTTP (Windows).
#include <windows.h>
// wincrypt.h and winhttp.h build on the types that windows.h declares.
#include <wincrypt.h>
#include <winhttp.h>

#include <cstdlib>
#include <vector>

#include "filedownload/Transfer.h"
#include "filedownload/WinText.h"

namespace filedownload {

namespace {

const wchar_t kAgent[] = L"FileDownLoad/1.0";

struct InternetHandle {
  HINTERNET h = nullptr;
  ~InternetHandle() {
    if (h != nullptr) WinHttpCloseHandle(h);
  }
};

std::string WinHttpErrorText(DWORD code) {
  const char* text = nullptr;
  switch (code) {
    case ERROR_WINHTTP_CANNOT_CONNECT:
    case WSAECONNREFUSED:
      text = "cannot connect";
      break;
    case ERROR_WINHTTP_NAME_NOT_RESOLVED:
      text = "cannot connect: the host name is not resolved";
      break;
    case ERROR_WINHTTP_TIMEOUT:
    case WSAETIMEDOUT:
      text = "timed out";
      break;
    // Wine's WinHTTP passes the socket's own errors on.
    case ERROR_WINHTTP_CONNECTION_ERROR:
    case WSAECONNRESET:
    case WSAECONNABORTED:
      text = "connection broken: reset or closed by the other side";
      break;
    case ERROR_WINHTTP_INVALID_SERVER_RESPONSE:
      text = "connection broken: no valid HTTP response";
      break;
    case ERROR_WINHTTP_SECURE_FAILURE:
    case ERROR_WINHTTP_SECURE_INVALID_CA:
      text = "TLS failure: the server's certificate is not trusted";
      break;
    case ERROR_WINHTTP_SECURE_CERT_CN_INVALID:
      text = "TLS failure: the server's certificate names another host";
      break;
    case ERROR_WINHTTP_SECURE_CERT_DATE_INVALID:
      text = "TLS failure: the server's certificate is out of its validity period";
      break;
    case ERROR_WINHTTP_SECURE_CHANNEL_ERROR:
      text = "TLS failure: the secure channel failed (handshake or certificate)";
      break;
    default:
      return "transfer failed: " + SystemErrorText(code, GetModuleHandleW(L"winhttp.dll"));
  }
  return std::string(text) + " (WinHTTP error " + std::to_string(code) + ")";
}

// The failures that a server certificate of an unknown authority causes. Windows reports
// ERROR_WINHTTP_SECURE_FAILURE; Wine's WinHTTP reports its failed certificate check as a failure
// of the secure channel. A retry lets through nothing but the unknown authority, and the
// certificate is verified against EM_MENDER_CA_FILE before any byte of the answer is used.
bool IsCertificateFailure(DWORD code) {
  return code == ERROR_WINHTTP_SECURE_FAILURE || code == ERROR_WINHTTP_SECURE_INVALID_CA ||
         code == ERROR_WINHTTP_SECURE_CHANNEL_ERROR;
}

HINTERNET OpenSession(const TransferRequest& request) {
  switch (request.proxyMode) {
    case ProxyMode::kNone:
      return WinHttpOpen(kAgent, WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
    case ProxyMode::kUserDefined: {
      // No bypass list: the named proxy serves every host, local addresses too.
      const std::wstring proxy = WideFromUtf8(request.proxyServer);
      return WinHttpOpen(kAgent, WINHTTP_ACCESS_TYPE_NAMED_PROXY, proxy.c_str(), WINHTTP_NO_PROXY_BYPASS, 0);
    }
    case ProxyMode::kPredefined:
      break;
  }
  // The system's settings: the automatic proxy (the settings of the machine and the user, proxy
  // auto-configuration) where WinHTTP knows it (Windows 8.1 on), else WinHTTP's default proxy
  // (netsh winhttp set proxy).
  HINTERNET session =
      WinHttpOpen(kAgent, WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
  if (session == nullptr) {
    session = WinHttpOpen(kAgent, WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
  }
  return session;
}

std::wstring CaFileFromEnvironment() {
  const wchar_t* value = _wgetenv(L"EM_MENDER_CA_FILE");
  return value != nullptr ? std::wstring(value) : std::wstring();
}

// The certificate authorities of EM_MENDER_CA_FILE, and the check of a server's chain against
// them. WinHTTP verifies against the Windows store only; when it refuses the server's chain as
// one of an unknown authority, the chain is verified here against these authorities (chain, use
// for server authentication, host name), and only then is the request sent again with the
// unknown authority, and nothing else, let through.
class ExtraAuthorities {
 public:
  ~ExtraAuthorities() {
    if (m_store != nullptr) CertCloseStore(m_store, 0);
  }

  bool Load(const std::wstring& file, std::string& error) {
    const std::string name = Utf8FromWide(file.c_str());
    const HANDLE h = CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
      error = "cannot read " + name + ": " + SystemErrorText(GetLastError());
      return false;
    }
    std::string pem;
    char buffer[16384];
    DWORD got = 0;
    while (ReadFile(h, buffer, sizeof buffer, &got, nullptr) && got > 0) pem.append(buffer, got);
    CloseHandle(h);

    m_store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
    if (m_store == nullptr) {
      error = "cannot make a certificate store: " + SystemErrorText(GetLastError());
      return false;
    }
    static const char kBegin[] = "-----BEGIN CERTIFICATE-----";
    static const char kEnd[] = "-----END CERTIFICATE-----";
    int count = 0;
    for (size_t at = pem.find(kBegin); at != std::string::npos; at = pem.find(kBegin, at + 1)) {
      const size_t end = pem.find(kEnd, at);
      if (end == std::string::npos) break;
      const std::string block = pem.substr(at, end + sizeof kEnd - 1 - at);
      DWORD size = 0;
      if (!CryptStringToBinaryA(block.c_str(), static_cast<DWORD>(block.size()), CRYPT_STRING_BASE64HEADER, nullptr,
                                &size, nullptr, nullptr)) {
        continue;
      }
      std::vector<BYTE> der(size);
      if (CryptStringToBinaryA(block.c_str(), static_cast<DWORD>(block.size()), CRYPT_STRING_BASE64HEADER, der.data(),
                               &size, nullptr, nullptr) &&
          CertAddEncodedCertificateToStore(m_store, X509_ASN_ENCODING, der.data(), size, CERT_STORE_ADD_ALWAYS,
                                           nullptr)) {
        ++count;
      }
    }
    if (count == 0) {
      error = name + " holds no PEM certificate";
      return false;
    }
    return true;
  }

  bool Verify(PCCERT_CONTEXT server, const std::wstring& host, std::string& error) const {
    // A chain engine whose only roots are these authorities. Where the system knows no exclusive
    // roots (before Windows 8), the usual engine builds the chain with the authorities beside it,
    // and its root must then be one of them.
    CERT_CHAIN_ENGINE_CONFIG config;
    ZeroMemory(&config, sizeof config);
    config.cbSize = sizeof config;
    config.hExclusiveRoot = m_store;
    HCERTCHAINENGINE engine = nullptr;
    const bool exclusive = CertCreateCertificateChainEngine(&config, &engine) != FALSE;

    HCERTSTORE others = CertOpenStore(CERT_STORE_PROV_COLLECTION, 0, 0, 0, nullptr);
    if (others != nullptr) {
      if (server->hCertStore != nullptr) CertAddStoreToCollection(others, server->hCertStore, 0, 0);
      CertAddStoreToCollection(others, m_store, 0, 0);
    }
    CERT_CHAIN_PARA para;
    ZeroMemory(&para, sizeof para);
    para.cbSize = sizeof para;
    char serverAuth[] = szOID_PKIX_KP_SERVER_AUTH;
    LPSTR usages[] = {serverAuth};
    para.RequestedUsage.dwType = USAGE_MATCH_TYPE_AND;
    para.RequestedUsage.Usage.cUsageIdentifier = 1;
    para.RequestedUsage.Usage.rgpszUsageIdentifier = usages;
    PCCERT_CHAIN_CONTEXT chain = nullptr;
    const BOOL built =
        CertGetCertificateChain(exclusive ? engine : nullptr, server, nullptr, others, &para, 0, nullptr, &chain);
    const DWORD buildError = GetLastError();
    if (others != nullptr) CertCloseStore(others, 0);
    if (exclusive) CertFreeCertificateChainEngine(engine);
    if (!built || chain == nullptr) {
      error = "TLS failure: cannot build the server's certificate chain: " + SystemErrorText(buildError);
      return false;
    }

    SSL_EXTRA_CERT_CHAIN_POLICY_PARA ssl;
    ZeroMemory(&ssl, sizeof ssl);
    ssl.cbSize = sizeof ssl;
    ssl.dwAuthType = AUTHTYPE_SERVER;
    ssl.fdwChecks = exclusive ? 0 : SECURITY_FLAG_IGNORE_UNKNOWN_CA;
    std::wstring serverName = host;
    ssl.pwszServerName = serverName.data();
    CERT_CHAIN_POLICY_PARA policy;
    ZeroMemory(&policy, sizeof policy);
    policy.cbSize = sizeof policy;
    policy.dwFlags = exclusive ? 0 : CERT_CHAIN_POLICY_ALLOW_UNKNOWN_CA_FLAG;
    policy.pvExtraPolicyPara = &ssl;
    CERT_CHAIN_POLICY_STATUS status;
    ZeroMemory(&status, sizeof status);
    status.cbSize = sizeof status;
    const BOOL checked = CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_SSL, chain, &policy, &status);

    bool rootIsOurs = false;
    if (chain->cChain > 0 && chain->rgpChain[0]->cElement > 0) {
      const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[0];
      PCCERT_CONTEXT root = simple->rgpElement[simple->cElement - 1]->pCertContext;
      PCCERT_CONTEXT found =
          CertFindCertificateInStore(m_store, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, root, nullptr);
      rootIsOurs = found != nullptr;
      if (found != nullptr) CertFreeCertificateContext(found);
    }
    CertFreeCertificateChain(chain);
    if (!checked || status.dwError != 0) {
      error = "TLS failure: the server's certificate does not verify against EM_MENDER_CA_FILE: " +
              SystemErrorText(checked ? status.dwError : GetLastError());
      return false;
    }
    if (!rootIsOurs) {
      error = "TLS failure: the server's certificate chain does not lead to a CA of EM_MENDER_CA_FILE";
      return false;
    }
    return true;
  }

 private:
  HCERTSTORE m_store = nullptr;
};

PCCERT_CONTEXT ServerCertificate(HINTERNET request) {
  PCCERT_CONTEXT cert = nullptr;
  DWORD size = sizeof cert;
  if (!WinHttpQueryOption(request, WINHTTP_OPTION_SERVER_CERT_CONTEXT, &cert, &size)) return nullptr;
  return cert;
}

// Verifies the server's certificate of the request against the extra authorities, when WinHTTP
// has it. `available` tells whether it had one.
bool VerifyServer(HINTERNET request, const ExtraAuthorities& extra, const std::wstring& host, bool& available,
                  std::string& error) {
  PCCERT_CONTEXT cert = ServerCertificate(request);
  available = cert != nullptr;
  if (cert == nullptr) return false;
  const bool ok = extra.Verify(cert, host, error);
  CertFreeCertificateContext(cert);
  return ok;
}

bool SetProxyCredentials(HINTERNET request, const TransferRequest& r) {
  const std::wstring user = WideFromUtf8(r.proxyUser);
  const std::wstring password = WideFromUtf8(r.proxyPassword);
  return WinHttpSetCredentials(request, WINHTTP_AUTH_TARGET_PROXY, WINHTTP_AUTH_SCHEME_BASIC, user.c_str(),
                               password.c_str(), nullptr) != FALSE;
}

bool QueryNumber(HINTERNET request, DWORD what, DWORD& value) {
  DWORD size = sizeof value;
  return WinHttpQueryHeaders(request, what | WINHTTP_QUERY_FLAG_NUMBER, WINHTTP_HEADER_NAME_BY_INDEX, &value, &size,
                             WINHTTP_NO_HEADER_INDEX) != FALSE;
}

// The Content-Length of the answer; false when there is none (chunked, or ended by the close).
bool ContentLength(HINTERNET request, uint64_t& length) {
  wchar_t text[32];
  DWORD size = sizeof text;
  if (!WinHttpQueryHeaders(request, WINHTTP_QUERY_CONTENT_LENGTH, WINHTTP_HEADER_NAME_BY_INDEX, text, &size,
                           WINHTTP_NO_HEADER_INDEX)) {
    return false;
  }
  wchar_t* end = nullptr;
  length = std::wcstoull(text, &end, 10);
  return end != text;
}

}  // namespace

TransferResult Transfer(const TransferRequest& r, StagedFile& file) {
  TransferResult result;
  const RequestTarget& target = r.target;

  // The host as WinHttpConnect takes it: an IPv6 address without its brackets.
  std::wstring host = WideFromUtf8(target.host);
  if (host.size() > 2 && host.front() == L'[' && host.back() == L']') host = host.substr(1, host.size() - 2);

  ExtraAuthorities extra;
  // Read only for https: a plain transfer does no work that it does not need.
  const std::wstring caFile = target.secure ? CaFileFromEnvironment() : std::wstring();
  const bool haveExtra = !caFile.empty();
  if (haveExtra) {
    result.caFile = Utf8FromWide(caFile.c_str());
    if (!extra.Load(caFile, result.error)) {
      result.error = "TLS failure: " + result.error;
      return result;
    }
  }

  InternetHandle session, connection, request;
  session.h = OpenSession(r);
  if (session.h == nullptr) {
    result.error = WinHttpErrorText(GetLastError());
    return result;
  }
  // Connect within 30 s; after that no limit (0: none), as the module ends a tool that hangs.
  WinHttpSetTimeouts(session.h, 0, kConnectTimeoutSeconds * 1000, 0, 0);
  connection.h = WinHttpConnect(session.h, host.c_str(),
                                target.port != 0 ? static_cast<INTERNET_PORT>(target.port) : INTERNET_DEFAULT_PORT, 0);
  if (connection.h == nullptr) {
    result.error = WinHttpErrorText(GetLastError());
    return result;
  }
  // The path is encoded already: WinHTTP sends it as it is.
  const std::wstring path = WideFromUtf8(target.path);
  request.h = WinHttpOpenRequest(
      connection.h, L"GET", path.c_str(), nullptr, WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
      (target.secure ? WINHTTP_FLAG_SECURE : 0) | WINHTTP_FLAG_ESCAPE_DISABLE | WINHTTP_FLAG_ESCAPE_DISABLE_QUERY);
  if (request.h == nullptr) {
    result.error = WinHttpErrorText(GetLastError());
    return result;
  }
  DWORD disable = WINHTTP_DISABLE_REDIRECTS;
  WinHttpSetOption(request.h, WINHTTP_OPTION_DISABLE_FEATURE, &disable, sizeof disable);
  const bool withCredentials = r.proxyMode != ProxyMode::kNone && !r.proxyUser.empty();
  if (withCredentials) SetProxyCredentials(request.h, r);

  // Send, answering a proxy's 407 once with the credentials and a certificate of an extra
  // authority once with its verification.
  bool credentialsResent = false;
  bool extraTrusted = false;
  DWORD status = 0;
  for (int attempt = 0; attempt < 4; ++attempt) {
    if (!WinHttpSendRequest(request.h, WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA, 0, 0, 0) ||
        !WinHttpReceiveResponse(request.h, nullptr)) {
      const DWORD e = GetLastError();
      if (e == ERROR_WINHTTP_RESEND_REQUEST) continue;
      if (IsCertificateFailure(e) && haveExtra && !extraTrusted) {
        // Where WinHTTP keeps the refused certificate, it is checked before anything is sent
        // again; in any case it is checked once the new connection stands (below).
        bool available = false;
        if (!VerifyServer(request.h, extra, host, available, result.error) && available) return result;
        DWORD flags = 0;
        DWORD size = sizeof flags;
        WinHttpQueryOption(request.h, WINHTTP_OPTION_SECURITY_FLAGS, &flags, &size);
        flags |= SECURITY_FLAG_IGNORE_UNKNOWN_CA;
        WinHttpSetOption(request.h, WINHTTP_OPTION_SECURITY_FLAGS, &flags, sizeof flags);
        extraTrusted = true;
        continue;
      }
      result.error = WinHttpErrorText(e);
      return result;
    }
    if (!QueryNumber(request.h, WINHTTP_QUERY_STATUS_CODE, status)) {
      result.error = WinHttpErrorText(GetLastError());
      return result;
    }
    if (status == HTTP_STATUS_PROXY_AUTH_REQ && withCredentials && !credentialsResent) {
      credentialsResent = true;
      SetProxyCredentials(request.h, r);
      continue;
    }
    break;
  }
  if (status == 0) {
    result.error = "no answer: WinHTTP asked to resend the request again and again";
    return result;
  }
  result.httpStatus = static_cast<long>(status);
  if (extraTrusted && target.secure) {
    bool available = false;
    if (!VerifyServer(request.h, extra, host, available, result.error)) {
      if (!available) result.error = "TLS failure: WinHTTP does not show the server's certificate";
      return result;
    }
  }
  if (status < 200 || status > 299) {
    result.code = kExitHttpStatus;
    result.error = "HTTP status " + std::to_string(status);
    if (status >= 300 && status <= 399) result.error += " (redirects are not followed)";
    return result;
  }

  uint64_t expected = 0;
  const bool haveLength = ContentLength(request.h, expected);
  std::vector<char> buffer(256 * 1024);
  for (;;) {
    DWORD got = 0;
    if (!WinHttpReadData(request.h, buffer.data(), static_cast<DWORD>(buffer.size()), &got)) {
      result.error = WinHttpErrorText(GetLastError());
      return result;
    }
    if (got == 0) break;
    if (!file.Write(buffer.data(), got)) {
      result.code = kExitLocalFile;
      result.error = file.Error();
      return result;
    }
    result.bytes += got;
  }
  if (haveLength && result.bytes != expected) {
    result.error = "short body: " + std::to_string(result.bytes) + " of " + std::to_string(expected) +
                   " bytes, the connection closed early";
    return result;
  }
  result.code = kExitDone;
  return result;
}

}  // namespace filedownload
