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
#include "OptionChecks.h"
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

// The server named on the command line.
struct Target {
  std::string host, port;
};

// What the handshake works with, in the order it is made: released in the
// reverse order (the exported key lives inside the session's context).
struct ClientSide {
  std::unique_ptr<CommandLibrarySession> session;
  LibCtxPtr libctx;
  ProviderPtr fallback;
  ProviderPtr provider;
  // Open until the end: its passphrase callback answers the library for
  // every signature.
  StorePtr store;
  UiMethodPtr ui;
  X509Ptr cert;
  EvpPkeyPtr key;
  std::unique_ptr<ProviderLog> provider_log;
};

// What the handshake came to.
struct Handshake {
  SslPtr ssl;
  int fd = -1;
  bool connected = false;
  bool accepted = false;
  bool own_signature_failed = false;
  std::string failure;
  std::string reply;
};

std::optional<Target> ParseTarget(const std::string& target) {
  const std::size_t colon = target.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == target.size()) return std::nullopt;
  std::string host = target.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  return Target{host, target.substr(colon + 1)};
}

// The tool is a host of its own here, as for its other commands; the
// exported key works inside the library's PKCS#11 context, which the session
// keeps until the end.
int ExportTokenKey(ClientSide& client, const X509_Auth_Certificate& record) {
  if (record.smart_card == 0)
    return FailPlain("tls: --token-key export is for token certificates; " +
                     std::string(record.name) + " comes from a file (use --token-key library)"),
           k_exit_usage;
  client.cert = RecordCertificate(record);
  void* exported = nullptr;
  Evidence::BeginStep();
  const X509_Auth_ResultCode code = X509_Auth_GetPrivateKeyForCertificate(&record, &exported);
  client.key.reset(static_cast<EVP_PKEY*>(exported));
  if (code != X509_Auth_ResultCode_Success || client.key == nullptr)
    return Fail(CommandLibrarySession::WithPromptNote(
        "tls: the token key of " + std::string(record.name) +
        " could not be exported: result code " + std::to_string(code)));
  return k_exit_ok;
}

// The certificate and key as the store hands them out.
void LoadFromStore(ClientSide& client) {
  while (!OSSL_STORE_eof(client.store.get())) {
    OsslStoreInfoPtr info(OSSL_STORE_load(client.store.get()));
    if (info == nullptr) break;
    if (OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_CERT)
      client.cert.reset(OSSL_STORE_INFO_get1_CERT(info.get()));
    if (OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_PKEY)
      client.key.reset(OSSL_STORE_INFO_get1_PKEY(info.get()));
  }
}

// The provider built in, the same code as the module, starts a library
// session of its own: the tool's ends first. A password-protected key file
// is read at each signature; the prompt remembers the answer.
int LoadThroughProvider(ClientSide& client, const GlobalOptions& global,
                        const std::string& thumbprint) {
  client.session.reset();
  ConfigureProvider(global);
  client.provider_log = std::make_unique<ProviderLog>();
  Evidence::BeginStep();
  if (OSSL_PROVIDER_add_builtin(client.libctx.get(), "x509auth",
                                x509auth_provider::X509AuthProviderInit) != 1 ||
      (client.provider = ProviderPtr(OSSL_PROVIDER_load(client.libctx.get(), "x509auth"))) ==
          nullptr)
    return Fail("tls: cannot load the x509auth provider: " + OpenSslReason());
  client.ui.reset(UI_create_method("x509-auth"));
  UI_method_set_reader(client.ui.get(), ReadFromPrompt);
  const std::string uri = "x509auth:thumbprint=" + thumbprint;
  client.store.reset(OSSL_STORE_open_ex(uri.c_str(), client.libctx.get(), nullptr, client.ui.get(),
                                        nullptr, nullptr, nullptr, nullptr));
  if (client.store == nullptr) {
    client.provider_log.reset();
    return Fail("tls: cannot open " + uri + ": " + OpenSslReason());
  }
  LoadFromStore(client);
  if (client.cert != nullptr && client.key != nullptr) return k_exit_ok;
  client.provider_log.reset();
  const std::string reason = OpenSslReason();
  const std::string wrong = WrongSecret();
  return Fail(CommandLibrarySession::WithPromptNote("tls: cannot load the certificate and key of " +
                                                    thumbprint + ": " +
                                                    (wrong.empty() ? reason : wrong)));
}

// The certificate is looked up as for every command (a prefix, or why it is
// not offered) before the provider or the token key is involved.
int LoadKey(ClientSide& client, const GlobalOptions& global, const TlsOptions& options) {
  client.session = std::make_unique<CommandLibrarySession>(global);
  if (!client.session->Start()) return k_exit_failed;
  const X509_Auth_Certificate* record = client.session->Find(options.thumbprint);
  if (record == nullptr) return k_exit_failed;
  // A library context of the tool's own with OpenSSL's default provider,
  // loaded first so that generic look-ups get OpenSSL's implementations.
  client.libctx.reset(OSSL_LIB_CTX_new());
  client.fallback.reset(OSSL_PROVIDER_load(client.libctx.get(), "default"));
  if (client.fallback == nullptr)
    return Fail("tls: cannot load OpenSSL's default provider: " + OpenSslReason());
  if (options.token_key == "export") return ExportTokenKey(client, *record);
  return LoadThroughProvider(client, global, ThumbprintHex(*record));
}

// TLS 1.3 signs RSA with PSS only, and TLS 1.2 prefers it. A key that cannot
// (a provider or exported key without PSS) keeps to PKCS#1 v1.5, which only
// TLS 1.2 has. |requested| is set when the server asks for a certificate.
int BuildContext(SslCtxPtr& ctx, const ClientSide& client, const TlsOptions& options,
                 bool* requested) {
  const bool rsa = EVP_PKEY_is_a(X509_get0_pubkey(client.cert.get()), "RSA");
  const bool pss = !rsa || CanSignPss(client.libctx.get(), client.key.get());
  if (!pss && options.tls1_3)
    return FailPlain("tls: the key of " + CommonName(client.cert.get()) +
                     " cannot sign RSA-PSS, which TLS 1.3 needs for RSA keys (use --tls1_2)"),
           k_exit_usage;
  ctx.reset(SSL_CTX_new_ex(client.libctx.get(), nullptr, TLS_client_method()));
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
  SSL_CTX_set_cert_cb(
      ctx.get(), [](SSL*, void* flag) { return *static_cast<bool*>(flag) = true, 1; }, requested);
  if (!options.ca_file.empty()
          ? SSL_CTX_load_verify_locations(ctx.get(), options.ca_file.c_str(), nullptr) != 1
          : SSL_CTX_set_default_verify_paths(ctx.get()) != 1)
    return Fail("tls: cannot read the CAs: " + OpenSslReason());
  if (SSL_CTX_use_certificate(ctx.get(), client.cert.get()) != 1 ||
      SSL_CTX_use_PrivateKey(ctx.get(), client.key.get()) != 1)
    return Fail("tls: the certificate and key do not go together: " + OpenSslReason());
  return k_exit_ok;
}

// TLS 1.3 finishes for the client before the server has looked at its
// certificate: the verdict (an alert, or the server's data) comes next.
void AwaitVerdict(Handshake& handshake, const std::string& send) {
  SSL* ssl = handshake.ssl.get();
  if (!send.empty()) {
    const std::string line = send + "\n";
    handshake.accepted = SSL_write(ssl, line.data(), static_cast<int>(line.size())) > 0;
    char buffer[4096];
    int n;
    while (handshake.accepted && (n = SSL_read(ssl, buffer, sizeof buffer)) > 0) {
      handshake.reply.append(buffer, static_cast<std::size_t>(n));
      if (handshake.reply.find('\n') != std::string::npos) break;
    }
  } else {
    timeval brief{1, 0};
    setsockopt(handshake.fd, SOL_SOCKET, SO_RCVTIMEO, &brief, sizeof brief);
    char byte;
    SSL_peek(ssl, &byte, 1);
  }
  const unsigned long error = ERR_peek_error();
  if (error != 0 && ERR_GET_LIB(error) == ERR_LIB_SSL &&
      ERR_GET_REASON(error) != SSL_R_UNEXPECTED_EOF_WHILE_READING) {
    handshake.accepted = false;
    handshake.failure = OpenSslReason();
  }
  ERR_clear_error();
}

int Shake(Handshake& handshake, SSL_CTX* ctx, const Target& target, const TlsOptions& options) {
  handshake.fd = Connect(target.host, target.port, options.timeout_seconds);
  if (handshake.fd < 0) return k_exit_failed;
  handshake.ssl.reset(SSL_new(ctx));
  SSL* ssl = handshake.ssl.get();
  SSL_set_fd(ssl, handshake.fd);
  const std::string servername = !options.servername.empty() ? options.servername : target.host;
  SSL_set_tlsext_host_name(ssl, servername.c_str());
  if (!options.servername.empty()) SSL_set1_host(ssl, options.servername.c_str());
  Evidence::BeginStep();
  handshake.connected = SSL_connect(ssl) == 1;
  handshake.failure = handshake.connected ? "" : OpenSslReason(&handshake.own_signature_failed);
  handshake.accepted = handshake.connected;
  if (handshake.connected) AwaitVerdict(handshake, options.send);
  return k_exit_ok;
}

void Close(Handshake& handshake) {
  if (handshake.connected) SSL_shutdown(handshake.ssl.get());
  close(handshake.fd);
}

// What the server sent (its name, its reply) is shown through Printable.
void PrintLine(const char* label, const std::string& value) {
  PrintOut(std::string(label) + value + "\n");
}

// The lines about the connection, up to the handshake's verdict.
void PrintConnection(const Handshake& handshake, const TlsOptions& options) {
  SSL* ssl = handshake.ssl.get();
  const bool connected = handshake.connected;
  PrintLine("version:          ", connected ? SSL_get_version(ssl) : "(none)");
  PrintLine("cipher:           ", connected ? SSL_get_cipher_name(ssl) : "(none)");
  int type = NID_undef, md = NID_undef;
  PrintLine("client signature: ", connected && SSL_get_signature_type_nid(ssl, &type) == 1 &&
                                          SSL_get_signature_nid(ssl, &md) == 1
                                      ? SchemeName(type, md)
                                      : "(none)");
  X509* server = SSL_get0_peer_certificate(ssl);
  char subject[512] = "(none)";
  if (server != nullptr) X509_NAME_oneline(X509_get_subject_name(server), subject, sizeof subject);
  PrintLine("server:           ", Printable(subject));
  const long verify = SSL_get_verify_result(ssl);
  PrintLine("server verified:  ", server == nullptr     ? "no"
                                  : verify == X509_V_OK ? "yes"
                                                        : X509_verify_cert_error_string(verify));
  PrintLine("client key:       ",
            options.token_key == "export" ? "exported from the token" : "x509auth provider");
}

// A handshake that stopped at the client's own signature was rejected by
// nobody: the server never saw it.
std::string Verdict(const Handshake& handshake, bool asked) {
  if (handshake.own_signature_failed)
    return "failed: the client's signature with its key failed, so the handshake could not go "
           "on: " +
           Printable(handshake.failure);
  if (!handshake.accepted) return "rejected: " + Printable(handshake.failure);
  return asked ? "accepted" : "completed, but the server asked for no client certificate";
}

// The report on stdout, then the exit status it comes to.
int Report(Handshake& handshake, ClientSide& client, const TlsOptions& options, bool requested) {
  PrintConnection(handshake, options);
  client.provider_log.reset();
  const bool asked = handshake.accepted && requested;
  PrintLine("handshake:        ", Verdict(handshake, asked));
  if (!handshake.reply.empty()) {
    std::string reply = handshake.reply;
    if (reply.back() == '\n') reply.pop_back();
    PrintLine("reply:            ", Printable(reply));
  }
  const bool flushed = FlushStandardOutput();
  Close(handshake);
  if (!flushed) return k_exit_failed;
  if (!handshake.accepted) {
    const std::string wrong = WrongSecret();
    return Fail(CommandLibrarySession::WithPromptNote("tls: the handshake with " + options.target +
                                                      " failed" +
                                                      (wrong.empty() ? "" : ": " + wrong)));
  }
  if (!asked && !options.allow_no_client_auth)
    return FailPlain("tls: " + options.target +
                     " did not ask for a client certificate, so the certificate was not tried "
                     "(--allow-no-client-auth accepts that)");
  X509* server = SSL_get0_peer_certificate(handshake.ssl.get());
  if (server == nullptr || SSL_get_verify_result(handshake.ssl.get()) != X509_V_OK)
    return Fail("tls: the server's certificate did not verify");
  return k_exit_ok;
}

}  // namespace

int RunTls(const GlobalOptions& global, const TlsOptions& options) {
  const std::optional<Target> target = ParseTarget(options.target);
  if (!target) return FailUsage("tls: give the server as HOST:PORT, not '" + options.target + "'");
  ClientSide client;
  if (const int status = LoadKey(client, global, options); status != k_exit_ok) return status;
  SslCtxPtr ctx;
  bool requested = false;
  if (const int status = BuildContext(ctx, client, options, &requested); status != k_exit_ok)
    return status;
  Handshake handshake;
  if (const int status = Shake(handshake, ctx.get(), *target, options); status != k_exit_ok)
    return status;
  return Report(handshake, client, options, requested);
}

Command AddTlsCommand(CLI::App& app, const GlobalOptions& global) {
  auto options = std::make_shared<TlsOptions>();
  CLI::App* command = app.add_subcommand("tls", "A TLS handshake authenticated with a certificate");
  command->add_option("TARGET", options->target, "The server, HOST:PORT")
      ->type_name("")
      ->required();
  command->add_option("--cert", options->thumbprint, "The certificate")
      ->required()
      ->type_name("THUMBPRINT")
      ->check(Thumbprint());
  command
      ->add_option("--CAfile", options->ca_file,
                   "CAs to verify the server with (default: the system's)")
      ->type_name("FILE")
      ->transform(AbsolutePath())
      ->check(ExistingFile());
  command
      ->add_option("--servername", options->servername,
                   "Name sent (SNI) and checked in the server's certificate")
      ->type_name("NAME");
  command->add_flag("--tls1_2", options->tls1_2, "TLS 1.2 only");
  command->add_flag("--tls1_3", options->tls1_3, "TLS 1.3 only");
  command
      ->add_option("--send", options->send,
                   "Write this line after the handshake and print the reply")
      ->type_name("TEXT");
  command
      ->add_option("--token-key", options->token_key,
                   "Token keys: used through the library (provider) or exported from the token")
      ->type_name("library|export")
      ->check(OneOf({"library", "export"}))
      ->capture_default_str();
  command->add_option("--timeout", options->timeout_seconds, "Seconds to wait for the server")
      ->type_name("SECONDS")
      ->check(Seconds())
      ->capture_default_str();
  command->add_flag("--allow-no-client-auth", options->allow_no_client_auth,
                    "Succeed also when the server asks for no client certificate");
  return {command, [&global, options] { return RunTls(global, *options); },
          [options] {
            return options->tls1_2 && options->tls1_3
                       ? std::string("tls: --tls1_2 and --tls1_3 exclude each other")
                       : std::string();
          }};
}

}  // namespace x509auth_tool
