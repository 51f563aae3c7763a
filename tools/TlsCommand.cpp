#include "TlsCommand.h"

#include <fcntl.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <openssl/store.h>
#include <openssl/ui.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "CommandLibrarySession.h"
#include "Evidence.h"
#include "Formatting.h"
#include "InputOutput.h"
#include "OpenSslHandles.h"
#include "PinPrompt.h"
#include "ProviderContext.h"
#include "Report.h"
#include "ThumbprintArgument.h"

namespace x509auth_tool {
namespace {

// libssl's two handles; every libcrypto one comes from the shared aliases.
using SslCtxPtr = std::unique_ptr<SSL_CTX, OpenSslDeleter<SSL_CTX, SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, OpenSslDeleter<SSL, SSL_free>>;
using ProviderPtr = OsslProviderPtr;
using StorePtr = OsslStoreCtxPtr;

// The provider's error data ends in "; library: LINE | LINE ...)": the
// library's lines that explain the error. They become evidence, shown under
// the failure line like the library's lines of the other commands.
std::string TakeLibraryLines(std::string data) {
  static const std::string k_marker = "; library: ";
  const std::size_t at = data.find(k_marker);
  if (at == std::string::npos) return data;
  std::string lines = data.substr(at + k_marker.size());
  data.erase(at);
  if (!lines.empty() && lines.back() == ')') {
    lines.pop_back();
    data += ")";
  }
  std::size_t start = 0;
  while (start <= lines.size()) {
    std::size_t end = lines.find(" | ", start);
    if (end == std::string::npos) end = lines.size();
    std::string line = lines.substr(start, end - start);
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) line.pop_back();
    if (!line.empty()) Evidence::AddForeign("provider", line);
    start = end + 3;
  }
  return data;
}

// The last OpenSSL error, for a one-line failure; the library's lines any
// error carries become evidence. |own_signature_failed|, when given, is set
// when an error on the way came from signing with the client's own key (the
// provider's, or the token's module's for an exported key).
std::string OpenSslReason(bool* own_signature_failed = nullptr) {
  std::string text;
  unsigned long code;
  const char* data = nullptr;
  int flags = 0;
  while ((code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) != 0) {
    char line[256];
    ERR_error_string_n(code, line, sizeof line);
    text = line;
    if (data != nullptr && *data != '\0' && (flags & ERR_TXT_STRING) != 0)
      text += " (" + TakeLibraryLines(data) + ")";
    if (own_signature_failed != nullptr &&
        (text.find("signing through x509auth failed") != std::string::npos ||
         text.find("PKCS#11 module") != std::string::npos))
      *own_signature_failed = true;
  }
  return text.empty() ? "no further detail" : text;
}

// A wrong password or PIN, said as such when the library's lines show one
// after the prompt was answered; empty otherwise.
std::string WrongSecret() {
  const std::string& answered = PinPrompt::LastAnswered();
  if (answered.empty()) return "";
  if (Evidence::StepHas("Failed to parse private key file [") ||
      Evidence::StepHas("Failed to parse private key file [%s]"))
    return "wrong password for the key file " + answered;
  if (Evidence::StepHas("Incorrect pin entered for: "))
    return "wrong PIN for the token \"" + answered + "\"";
  return "";
}

std::string Join(const std::vector<std::string>& parts) {
  std::string joined;
  for (const std::string& part : parts) joined += (joined.empty() ? "" : ":") + part;
  return joined;
}

// The store's passphrase callback. The provider hands over what the
// library's prompt names ("token: LABEL" or a key file's path) as the prompt
// info, which OpenSSL wraps as "Enter pass phrase for INFO:"; the library's
// own prompt is made again from it and answered by the tool's prompt
// sources, as for the other commands.
int AnswerPrompt(UI* ui, UI_STRING* uis) {
  if (UI_get_string_type(uis) != UIT_PROMPT && UI_get_string_type(uis) != UIT_VERIFY) return 1;
  std::string info = UI_get0_output_string(uis);
  static const std::string k_wrapper = "Enter pass phrase for ";
  if (info.compare(0, k_wrapper.size(), k_wrapper) == 0) info.erase(0, k_wrapper.size());
  if (!info.empty() && info.back() == ':') info.pop_back();
  const bool pin = info.rfind("token: ", 0) == 0;
  const char* title = pin ? "Enter pin" : "Enter password";
  const std::string prompt = pin ? "Enter pin for " + info : "Enter password for: " + info;
  X509_Auth_PinEntryResult* answer = PinPrompt::OnPinEntry(title, prompt.c_str());
  int ok = 0;
  if (answer != nullptr && answer->status == 0 && answer->value != nullptr)
    ok = UI_set_result(ui, uis, answer->value) == 0;
  if (answer != nullptr) PinPrompt::OnFree(answer);
  return ok ? 1 : 0;
}

// OpenSSL calls it: no exception may cross into its C code. A prompt that
// cannot be answered is cancelled.
int ReadFromPrompt(UI* ui, UI_STRING* uis) noexcept {
  try {
    return AnswerPrompt(ui, uis);
  } catch (...) {
    return 0;
  }
}

// A TCP connection with a time limit on connecting, reading and writing.
int Connect(const std::string& host, const std::string& port, int timeout_seconds) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0 || found == nullptr) {
    Fail("cannot resolve " + host);
    return -1;
  }
  int fd = -1;
  for (addrinfo* a = found; a != nullptr && fd < 0; a = a->ai_next) {
    fd = socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK, a->ai_protocol);
    if (fd < 0) continue;
    int error = connect(fd, a->ai_addr, a->ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
      pollfd wait{fd, POLLOUT, 0};
      socklen_t length = sizeof(error);
      error = poll(&wait, 1, timeout_seconds * 1000) == 1 &&
                      getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0
                  ? error
                  : ETIMEDOUT;
    }
    if (error != 0) {
      close(fd);
      fd = -1;
      errno = error;
    }
  }
  freeaddrinfo(found);
  if (fd < 0) {
    Fail("cannot connect to " + host + ":" + port + ": " + std::strerror(errno));
    return -1;
  }
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  timeval limit{timeout_seconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  return fd;
}

std::string SchemeName(int type_nid, int md_nid) {
  std::string type = type_nid == EVP_PKEY_RSA       ? "RSA PKCS#1 v1.5"
                     : type_nid == EVP_PKEY_RSA_PSS ? "RSA-PSS"
                     : type_nid == EVP_PKEY_EC      ? "ECDSA"
                                                    : OBJ_nid2sn(type_nid);
  return type + " with " + (md_nid != NID_undef ? OBJ_nid2sn(md_nid) : "?");
}

// The provider's settings come from the tool's options, through the
// variables the provider reads when its context starts.
void ConfigureProvider(const GlobalOptions& global) {
  setenv("X509AUTH_DIRS", Join(global.dirs).c_str(), 1);
  setenv("X509AUTH_HOME_DIRS", Join(global.home_dirs).c_str(), 1);
  setenv("X509AUTH_CA_FILES", Join(global.cas).c_str(), 1);
  // The provider is quiet and hands the library's lines on as its errors'
  // data; with -v everything it writes is collected (see ProviderLog).
  setenv("X509AUTH_LOG", global.verbose > 0 ? "debug" : "none", 1);
  // The tool's module choice ("none": no module), so that the provider
  // never looks further.
  setenv("X509AUTH_MODULE", global.module_path.empty() ? "none" : global.module_path.c_str(), 1);
}

// The provider writes the library's lines to stderr as "x509auth: TEXT"
// (it is made for other people's programs). While it works, stderr goes to
// a memory file; the lines become evidence, like the library's lines of the
// other commands, when the tool has stderr back.
class ProviderLog {
 public:
  ProviderLog() {
    std::fflush(stderr);
    g_file = memfd_create("x509-auth-provider-log", MFD_CLOEXEC);
    g_saved = g_file >= 0 ? dup(STDERR_FILENO) : -1;
    if (g_saved >= 0) {
      dup2(g_file, STDERR_FILENO);
      BeforeNextReport(Finish);
    }
  }
  ~ProviderLog() {
    BeforeNextReport(nullptr);
    Finish();
  }
  ProviderLog(const ProviderLog&) = delete;
  ProviderLog& operator=(const ProviderLog&) = delete;

  // Gives stderr back and turns what was written into evidence; once.
  static void Finish() {
    if (g_saved < 0) return;
    std::fflush(stderr);
    dup2(g_saved, STDERR_FILENO);
    close(g_saved);
    g_saved = -1;
    std::string text;
    char buffer[4096];
    ssize_t n;
    for (off_t at = 0; (n = pread(g_file, buffer, sizeof buffer, at)) > 0; at += n)
      text.append(buffer, static_cast<std::size_t>(n));
    close(g_file);
    g_file = -1;
    std::size_t start = 0;
    while (start < text.size()) {
      std::size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      std::string line = text.substr(start, end - start);
      if (line.rfind("x509auth: ", 0) == 0) line.erase(0, 10);
      if (!line.empty()) Evidence::AddForeign("provider", line);
      start = end + 1;
    }
  }

 private:
  static inline int g_file = -1;
  static inline int g_saved = -1;
};

// Whether |key| takes RSA-PSS padding for signing: asked of its signature
// implementation without signing anything.
bool CanSignPss(OSSL_LIB_CTX* libctx, EVP_PKEY* key) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(libctx, key, nullptr));
  const bool can = ctx != nullptr && EVP_PKEY_sign_init(ctx.get()) > 0 &&
                   EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PSS_PADDING) > 0;
  ERR_clear_error();
  return can;
}

struct Client {
  X509Ptr cert;
  EvpPkeyPtr key;
};

}  // namespace

int RunTls(const GlobalOptions& global, const TlsOptions& options) {
  const std::size_t colon = options.target.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == options.target.size())
    return FailPlain("tls: give the server as HOST:PORT, not '" + options.target + "'"),
           k_exit_usage;
  std::string host = options.target.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  const std::string port = options.target.substr(colon + 1);

  // The certificate is looked up as for every command (a prefix, or why it
  // is not offered) before the provider or the token key is involved.
  auto session = std::make_unique<CommandLibrarySession>(global);
  if (!session->Start()) return k_exit_failed;
  const X509_Auth_Certificate* record = session->Find(options.thumbprint);
  if (record == nullptr) return k_exit_failed;
  const std::string thumbprint = ThumbprintHex(*record);
  const bool smart_card = record->smart_card != 0;

  // A library context of the tool's own with OpenSSL's default provider,
  // loaded first so that generic look-ups get OpenSSL's implementations.
  LibCtxPtr libctx(OSSL_LIB_CTX_new());
  ProviderPtr fallback(OSSL_PROVIDER_load(libctx.get(), "default"));
  if (fallback == nullptr)
    return Fail("tls: cannot load OpenSSL's default provider: " + OpenSslReason());
  ProviderPtr provider;
  StorePtr store;
  UiMethodPtr ui;
  Client client;
  std::unique_ptr<ProviderLog> provider_log;
  if (options.token_key == "export") {
    // The tool is a host of its own here, as for its other commands; the
    // exported key works inside the library's PKCS#11 context, which the
    // session keeps until the end.
    if (!smart_card)
      return FailPlain("tls: --token-key export is for token certificates; " +
                       std::string(record->name) + " comes from a file (use --token-key library)"),
             k_exit_usage;
    client.cert = RecordCertificate(*record);
    void* exported = nullptr;
    Evidence::BeginStep();
    const X509_Auth_ResultCode code = X509_Auth_GetPrivateKeyForCertificate(record, &exported);
    client.key.reset(static_cast<EVP_PKEY*>(exported));
    if (code != X509_Auth_ResultCode_Success || client.key == nullptr)
      return Fail(CommandLibrarySession::WithPromptNote(
          "tls: the token key of " + std::string(record->name) +
          " could not be exported: result code " + std::to_string(code)));
  } else {
    // The provider built in, the same code as the module, starts a library
    // session of its own: the tool's ends first. Its store stays open until
    // the end: its passphrase callback answers the library for every
    // signature (a password-protected key file is read each time; the
    // prompt remembers the answer).
    session.reset();
    ConfigureProvider(global);
    provider_log = std::make_unique<ProviderLog>();
    Evidence::BeginStep();
    if (OSSL_PROVIDER_add_builtin(libctx.get(), "x509auth",
                                  x509auth_provider::X509AuthProviderInit) != 1 ||
        (provider = ProviderPtr(OSSL_PROVIDER_load(libctx.get(), "x509auth"))) == nullptr)
      return Fail("tls: cannot load the x509auth provider: " + OpenSslReason());
    ui.reset(UI_create_method("x509-auth"));
    UI_method_set_reader(ui.get(), ReadFromPrompt);
    const std::string uri = "x509auth:thumbprint=" + thumbprint;
    store.reset(OSSL_STORE_open_ex(uri.c_str(), libctx.get(), nullptr, ui.get(), nullptr, nullptr,
                                   nullptr, nullptr));
    if (store == nullptr) {
      provider_log.reset();
      return Fail("tls: cannot open " + uri + ": " + OpenSslReason());
    }
    while (!OSSL_STORE_eof(store.get())) {
      OsslStoreInfoPtr info(OSSL_STORE_load(store.get()));
      if (info == nullptr) break;
      if (OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_CERT)
        client.cert.reset(OSSL_STORE_INFO_get1_CERT(info.get()));
      if (OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_PKEY)
        client.key.reset(OSSL_STORE_INFO_get1_PKEY(info.get()));
    }
    if (client.cert == nullptr || client.key == nullptr) {
      provider_log.reset();
      const std::string reason = OpenSslReason();
      const std::string wrong = WrongSecret();
      return Fail(CommandLibrarySession::WithPromptNote(
          "tls: cannot load the certificate and key of " + thumbprint + ": " +
          (wrong.empty() ? reason : wrong)));
    }
  }

  // TLS 1.3 signs RSA with PSS only, and TLS 1.2 prefers it. A key that
  // cannot (a provider or exported key without PSS) keeps to PKCS#1 v1.5,
  // which only TLS 1.2 has.
  const bool rsa = EVP_PKEY_is_a(X509_get0_pubkey(client.cert.get()), "RSA");
  const bool pss = !rsa || CanSignPss(libctx.get(), client.key.get());
  if (!pss && options.tls1_3)
    return FailPlain("tls: the key of " + CommonName(client.cert.get()) +
                     " cannot sign RSA-PSS, which TLS 1.3 needs for RSA keys (use --tls1_2)"),
           k_exit_usage;

  SslCtxPtr ctx(SSL_CTX_new_ex(libctx.get(), nullptr, TLS_client_method()));
  if (ctx == nullptr) return Fail("tls: " + OpenSslReason());
  const int version = options.tls1_2 ? TLS1_2_VERSION : options.tls1_3 ? TLS1_3_VERSION : 0;
  if (version != 0) {
    SSL_CTX_set_min_proto_version(ctx.get(), version);
    SSL_CTX_set_max_proto_version(ctx.get(), version);
  }
  if (!pss) {
    SSL_CTX_set_max_proto_version(ctx.get(), TLS1_2_VERSION);
    SSL_CTX_set1_client_sigalgs_list(ctx.get(), "RSA+SHA256:RSA+SHA384:RSA+SHA512:RSA+SHA1");
  }
  // Called by libssl only when the server sends a CertificateRequest.
  bool requested = false;
  SSL_CTX_set_cert_cb(
      ctx.get(), [](SSL*, void* flag) { return *static_cast<bool*>(flag) = true, 1; }, &requested);
  if (!options.ca_file.empty()
          ? SSL_CTX_load_verify_locations(ctx.get(), options.ca_file.c_str(), nullptr) != 1
          : SSL_CTX_set_default_verify_paths(ctx.get()) != 1)
    return Fail("tls: cannot read the CAs: " + OpenSslReason());
  if (SSL_CTX_use_certificate(ctx.get(), client.cert.get()) != 1 ||
      SSL_CTX_use_PrivateKey(ctx.get(), client.key.get()) != 1)
    return Fail("tls: the certificate and key do not go together: " + OpenSslReason());

  const int fd = Connect(host, port, options.timeout_seconds);
  if (fd < 0) return k_exit_failed;
  SslPtr ssl(SSL_new(ctx.get()));
  SSL_set_fd(ssl.get(), fd);
  const std::string servername = !options.servername.empty() ? options.servername : host;
  SSL_set_tlsext_host_name(ssl.get(), servername.c_str());
  if (!options.servername.empty()) SSL_set1_host(ssl.get(), options.servername.c_str());

  Evidence::BeginStep();
  const bool connected = SSL_connect(ssl.get()) == 1;
  bool own_signature_failed = false;
  std::string failure = connected ? "" : OpenSslReason(&own_signature_failed);
  bool accepted = connected;
  std::string reply;
  if (connected) {
    // TLS 1.3 finishes for the client before the server has looked at its
    // certificate: the verdict (an alert, or the server's data) comes next.
    if (!options.send.empty()) {
      const std::string line = options.send + "\n";
      accepted = SSL_write(ssl.get(), line.data(), static_cast<int>(line.size())) > 0;
      char buffer[4096];
      int n;
      while (accepted && (n = SSL_read(ssl.get(), buffer, sizeof buffer)) > 0) {
        reply.append(buffer, static_cast<std::size_t>(n));
        if (reply.find('\n') != std::string::npos) break;
      }
    } else {
      timeval brief{1, 0};
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &brief, sizeof brief);
      char byte;
      SSL_peek(ssl.get(), &byte, 1);
    }
    const unsigned long error = ERR_peek_error();
    if (error != 0 && ERR_GET_LIB(error) == ERR_LIB_SSL &&
        ERR_GET_REASON(error) != SSL_R_UNEXPECTED_EOF_WHILE_READING) {
      accepted = false;
      failure = OpenSslReason();
    }
    ERR_clear_error();
  }

  // What the server sent (its name, its reply) is shown through Printable.
  const auto line = [](const char* label, const std::string& value) {
    PrintOut(std::string(label) + value + "\n");
  };
  const char* version_name = SSL_get_version(ssl.get());
  line("version:          ", connected ? version_name : "(none)");
  line("cipher:           ", connected ? SSL_get_cipher_name(ssl.get()) : "(none)");
  int type = NID_undef, md = NID_undef;
  line("client signature: ", connected && SSL_get_signature_type_nid(ssl.get(), &type) == 1 &&
                                     SSL_get_signature_nid(ssl.get(), &md) == 1
                                 ? SchemeName(type, md)
                                 : "(none)");
  X509* server = SSL_get0_peer_certificate(ssl.get());
  char subject[512] = "(none)";
  if (server != nullptr) X509_NAME_oneline(X509_get_subject_name(server), subject, sizeof subject);
  line("server:           ", Printable(subject));
  const long verify = SSL_get_verify_result(ssl.get());
  line("server verified:  ", server == nullptr     ? "no"
                             : verify == X509_V_OK ? "yes"
                                                   : X509_verify_cert_error_string(verify));
  line("client key:       ",
       options.token_key == "export" ? "exported from the token" : "x509auth provider");
  provider_log.reset();
  const bool asked = accepted && requested;
  // A handshake that stopped at the client's own signature was rejected by
  // nobody: the server never saw it.
  line("handshake:        ", own_signature_failed
                                 ? "failed: the client's signature with its key failed, so the "
                                   "handshake could not go on: " +
                                       Printable(failure)
                             : !accepted ? "rejected: " + Printable(failure)
                             : asked     ? "accepted"
                                     : "completed, but the server asked for no client certificate");
  if (!reply.empty()) {
    if (reply.back() == '\n') reply.pop_back();
    line("reply:            ", Printable(reply));
  }
  if (!FlushStandardOutput()) {
    if (connected) SSL_shutdown(ssl.get());
    close(fd);
    return k_exit_failed;
  }
  if (connected) SSL_shutdown(ssl.get());
  close(fd);
  if (!accepted) {
    const std::string wrong = WrongSecret();
    return Fail(CommandLibrarySession::WithPromptNote("tls: the handshake with " + options.target +
                                                      " failed" +
                                                      (wrong.empty() ? "" : ": " + wrong)));
  }
  if (!asked && !options.allow_no_client_auth)
    return FailPlain("tls: " + options.target +
                     " did not ask for a client certificate, so the certificate was not tried "
                     "(--allow-no-client-auth accepts that)");
  if (server == nullptr || verify != X509_V_OK)
    return Fail("tls: the server's certificate did not verify");
  return k_exit_ok;
}

}  // namespace x509auth_tool
