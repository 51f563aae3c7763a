// x509-auth: the command line of libx509auth. This file only wires the
// options to the commands; each command lives in its own file.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ChainCommand.h"
#include "DecryptCommand.h"
#include "DoctorCommand.h"
#include "Formatting.h"
#include "GlobalOptions.h"
#include "HelpText.h"
#include "InputOutput.h"
#include "InterruptCleanup.h"
#include "ListCommand.h"
#include "ModuleChoice.h"
#include "Report.h"
#include "ShowCommand.h"
#include "SignCommand.h"
#include "ThumbprintArgument.h"
#include "TlsCommand.h"
#include "x509_auth.h"

using namespace x509auth_tool;

namespace {

// A check whose name stays out of the help's option labels ("FILE", not
// "FILE:FILE").
CLI::Validator Unlabelled(CLI::Validator validator) {
  validator.description("");
  return validator;
}

// Paths on the command line are made absolute while they are read: the
// provider behind `tls` and the library take them as they are.
const CLI::Validator k_absolute_path(
    [](std::string& path) {
      if (!path.empty() && path != "-")
        path = std::filesystem::absolute(path).lexically_normal().string();
      return std::string();
    },
    "", "absolute");

const CLI::Validator k_thumbprint([](std::string& text) { return ThumbprintArgument::Check(text); },
                                  "", "thumbprint");

const CLI::Validator k_existing_file = Unlabelled(CLI::ExistingFile);

// A file descriptor number; CLI11's own range check would print the range
// of a double.
const CLI::Validator k_descriptor(
    [](std::string& text) {
      const bool digits = !text.empty() && text.size() < 10 &&
                          text.find_first_not_of("0123456789") == std::string::npos;
      return digits ? std::string() : "not a file descriptor number: " + text + " (0, 1, 2, ...)";
    },
    "", "descriptor");

const CLI::Validator k_seconds(
    [](std::string& text) {
      const bool digits = !text.empty() && text.size() < 7 &&
                          text.find_first_not_of("0123456789") == std::string::npos &&
                          std::stol(text) > 0;
      return digits ? std::string() : "not a number of seconds: " + text + " (1 or more)";
    },
    "", "seconds");

CLI::Validator OneOf(std::vector<std::string> choices) {
  return Unlabelled(CLI::IsMember(std::move(choices)));
}

// One entry per command: its CLI11 subcommand and what runs it.
struct Command {
  CLI::App* app;
  std::function<int()> run;
};

// The number of single-character edits from |a| to |b|.
std::size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// "unknown command 'lst' (did you mean 'list'?)".
std::string UnknownCommand(const std::string& word, const std::vector<Command>& commands) {
  std::string message = "unknown command '" + word + "'";
  std::string best;
  std::size_t best_distance = 3;  // more edits than two is no longer a typo
  for (const Command& command : commands) {
    const std::string& name = command.app->get_name();
    const std::size_t distance = EditDistance(word, name);
    if (distance < best_distance || (name.rfind(word, 0) == 0 && !word.empty())) {
      best = name;
      best_distance = distance < best_distance ? distance : best_distance;
    }
  }
  if (!best.empty()) message += " (did you mean '" + best + "'?)";
  return message + "; the commands are listed by 'x509-auth --help'";
}

// --dir names a base directory, the one holding certs/ and keys/: say so when
// it cannot be one, since the library just finds nothing there.
void CheckBaseDirectories(const std::vector<std::string>& dirs) {
  for (const std::string& dir : dirs) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(dir, error);
    if (!std::filesystem::exists(status)) {
      Warn("--dir " + dir + " does not exist");
    } else if (!std::filesystem::is_directory(status)) {
      Warn("--dir " + dir + " is not a folder; give the folder that holds certs/ and keys/");
    } else if (std::filesystem::path(dir).filename() == "certs" &&
               !std::filesystem::is_directory(std::filesystem::path(dir) / "certs", error)) {
      Warn("--dir " + dir + " is a certs folder itself; give the folder above it (" +
           std::filesystem::path(dir).parent_path().string() + ")");
    }
  }
}

// The tool itself. |doing| says what it is at, for main's last-resort
// failure line: no exception reaches the user as a bare what().
int Main(int argc, char** argv, std::string& doing) {
  GlobalOptions global;
  CLI::App app{"x509-auth: the client certificates this machine offers, and their keys",
               "x509-auth"};
  app.footer(k_help_footer);
  app.fallthrough();
  // An unknown command is kept, so that it can be named with a suggestion.
  app.allow_extras();
  app.set_version_flag(
      "--version", std::string("x509-auth " X509AUTH_TOOL_VERSION ", libx509auth API version ") +
                       std::to_string(X509_Auth_GetApiVersion()));
  app.add_option("--dir", global.dirs, "Base directory (certs/ and keys/ below it); repeatable")
      ->type_name("BASE")
      ->transform(k_absolute_path);
  app.add_option("--home-dir", global.home_dirs, "Base directory relative to $HOME; repeatable")
      ->type_name("REL");
  app.add_option("--add-ca", global.cas, "Trust this CA certificate (PEM or DER); repeatable")
      ->type_name("FILE")
      ->transform(k_absolute_path)
      ->check(k_existing_file);
  // Taken as given: a relative module path is refused, never resolved.
  CLI::Option* module_option =
      app.add_option("--module", global.module,
                     "PKCS#11 module by absolute path, or none (default: $X509AUTH_MODULE, else "
                     "Debian's OpenSC module, else none)")
          ->type_name("PATH|none");
  app.add_option("--pin-env", global.pin_env, "Take PINs from this variable")->type_name("VAR");
  app.add_option("--pin-fd", global.pin_fd, "Read PINs from this descriptor, a line each")
      ->type_name("N")
      ->check(k_descriptor);
  app.add_option("--password-env", global.password_env, "Take key passwords from this variable")
      ->type_name("VAR");
  app.add_option("--password-fd", global.password_fd,
                 "Read key passwords from this descriptor, a line each")
      ->type_name("N")
      ->check(k_descriptor);
  app.add_flag("-v,--verbose", global.verbose, "Show every line the library logs, as it comes");
  app.add_flag("-q,--quiet", global.quiet, "Show only the result and the failure line");

  std::vector<Command> commands;
  auto add = [&](const char* name, const char* description, std::function<int()> run) {
    CLI::App* sub = app.add_subcommand(name, description);
    commands.push_back({sub, std::move(run)});
    return sub;
  };

  ListOptions list;
  add("list", "List the offered certificates", [&] {
    return RunList(global, list);
  })->add_flag("--json", list.json, "A JSON array of objects instead of a table");

  ChainOptions chain;
  CLI::App* chain_app = add("chain", "Show a certificate's chain, leaf first",
                            [&] { return RunChain(global, chain); });
  chain_app->add_option("THUMBPRINT", chain.thumbprint, "The certificate")
      ->type_name("")
      ->required()
      ->check(k_thumbprint);
  chain_app->add_flag("--pem", chain.pem,
                      "Write the leaf and the CA certificates the library hands out as PEM");

  SignOptions sign;
  CLI::App* sign_app = add("sign", "Hash the input and sign the digest with a certificate's key",
                           [&] { return RunSign(global, sign); });
  sign_app->add_option("THUMBPRINT", sign.thumbprint, "The certificate")
      ->type_name("")
      ->required()
      ->check(k_thumbprint);
  sign_app->add_option("--hash", sign.hash, "Digest algorithm")
      ->type_name("sha1|sha256|sha384|sha512")
      ->check(OneOf({"sha1", "sha256", "sha384", "sha512"}))
      ->capture_default_str();
  sign_app->add_option("--in", sign.in, "Input file, - for standard input")
      ->type_name("FILE")
      ->transform(k_absolute_path)
      ->capture_default_str();
  sign_app->add_option("--out", sign.out, "Write the raw signature here instead of hex to stdout")
      ->type_name("FILE")
      ->transform(k_absolute_path);
  sign_app->add_flag("--pss", sign.pss,
                     "RSA-PSS (salt as long as the digest) instead of PKCS#1 v1.5");

  DecryptOptions decrypt;
  CLI::App* decrypt_app = add("decrypt", "Decrypt the input with a certificate's RSA key",
                              [&] { return RunDecrypt(global, decrypt); });
  decrypt_app->add_option("THUMBPRINT", decrypt.thumbprint, "The certificate")
      ->type_name("")
      ->required()
      ->check(k_thumbprint);
  decrypt_app->add_option("--padding", decrypt.padding, "RSA padding of the input")
      ->type_name("pkcs1|oaep")
      ->required()
      ->check(OneOf({"pkcs1", "oaep"}));
  decrypt_app->add_option("--in", decrypt.in, "Input file, - for standard input")
      ->type_name("FILE")
      ->transform(k_absolute_path)
      ->capture_default_str();
  decrypt_app->add_option("--out", decrypt.out, "Write the plaintext here instead of stdout")
      ->type_name("FILE")
      ->transform(k_absolute_path);

  ShowOptions show;
  add("show", "Open a certificate in the desktop's certificate viewer",
      [&] { return RunShow(global, show); })
      ->add_option("THUMBPRINT", show.thumbprint, "The certificate")
      ->type_name("")
      ->required()
      ->check(k_thumbprint);

  DoctorOptions doctor;
  add("doctor", "Explain, entry by entry, which certificates are offered and why not", [&] {
    return RunDoctor(global, doctor);
  })->add_flag("--json", doctor.json, "A JSON array of objects instead of the report");

  TlsOptions tls;
  CLI::App* tls_app = add("tls", "A TLS handshake authenticated with a certificate",
                          [&] { return RunTls(global, tls); });
  tls_app->add_option("TARGET", tls.target, "The server, HOST:PORT")->type_name("")->required();
  tls_app->add_option("--cert", tls.thumbprint, "The certificate")
      ->required()
      ->type_name("THUMBPRINT")
      ->check(k_thumbprint);
  tls_app
      ->add_option("--CAfile", tls.ca_file, "CAs to verify the server with (default: the system's)")
      ->type_name("FILE")
      ->transform(k_absolute_path)
      ->check(k_existing_file);
  tls_app
      ->add_option("--servername", tls.servername,
                   "Name sent (SNI) and checked in the server's certificate")
      ->type_name("NAME");
  tls_app->add_flag("--tls1_2", tls.tls1_2, "TLS 1.2 only");
  tls_app->add_flag("--tls1_3", tls.tls1_3, "TLS 1.3 only");
  tls_app->add_option("--send", tls.send, "Write this line after the handshake and print the reply")
      ->type_name("TEXT");
  tls_app
      ->add_option("--token-key", tls.token_key,
                   "Token keys: used through the library (provider) or exported from the token")
      ->type_name("library|export")
      ->check(OneOf({"library", "export"}))
      ->capture_default_str();
  tls_app->add_option("--timeout", tls.timeout_seconds, "Seconds to wait for the server")
      ->type_name("SECONDS")
      ->check(k_seconds)
      ->capture_default_str();
  tls_app->add_flag("--allow-no-client-auth", tls.allow_no_client_auth,
                    "Succeed also when the server asks for no client certificate");

  // `x509-auth help [COMMAND]` is what many users type first.
  std::string help_topic;
  CLI::App* help_app = app.add_subcommand("help", "Show this help, or a command's: help COMMAND");
  help_app->add_option("COMMAND", help_topic, "The command")->type_name("COMMAND");

  // The tool's manual belongs to the tool, not to every command's help.
  for (const Command& command : commands) command.app->footer("");

  // `help COMMAND` is read here: CLI11 would take COMMAND as the command.
  const bool help_first = argc >= 2 && std::string(argv[1]) == "help";
  if (help_first) {
    if (argc > 3)
      return std::fprintf(stderr, "x509-auth: help takes one command name\n"), k_exit_usage;
    help_topic = argc == 3 ? argv[2] : "";
  }
  try {
    if (!help_first) app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      // --help and --version, written as any output is, failures included.
      std::ostringstream out, err;
      app.exit(error, out, err);
      PrintOut(out.str());
      return FlushStandardOutput() ? k_exit_ok : k_exit_failed;
    }
    std::fprintf(stderr, "x509-auth: %s (see 'x509-auth --help')\n",
                 Printable(error.what()).c_str());
    return k_exit_usage;
  }
  auto usage = [](const std::string& message) {
    std::fprintf(stderr, "x509-auth: %s\n", Printable(message).c_str());
    return k_exit_usage;
  };
  if (help_first || help_app->parsed()) {
    // App::help() would show the help of the command given: `help` itself.
    const auto text = [&app](CLI::App* of) {
      const std::string name = of == &app ? of->get_name() : app.get_name() + " " + of->get_name();
      return of->get_formatter()->make_help(of, name, CLI::AppFormatMode::Normal);
    };
    const auto print = [](const std::string& help) {
      PrintOut(help);
      return FlushStandardOutput() ? k_exit_ok : k_exit_failed;
    };
    if (help_topic.empty()) return print(text(&app));
    for (const Command& command : commands)
      if (command.app->get_name() == help_topic) return print(text(command.app));
    return usage(UnknownCommand(help_topic, commands));
  }
  const std::vector<std::string> extras = app.remaining();
  const Command* chosen = nullptr;
  for (const Command& command : commands)
    if (command.app->parsed()) chosen = &command;
  if (!extras.empty()) {
    if (chosen == nullptr && extras.front().rfind("-", 0) != 0)
      return usage(UnknownCommand(extras.front(), commands));
    return usage("unexpected argument '" + extras.front() + "' (see 'x509-auth --help')");
  }
  if (chosen == nullptr)
    return usage("no command given; the commands are listed by 'x509-auth --help'");
  // Options that exclude each other, checked here so that the help stays
  // free of CLI11's "Excludes:" lines.
  if (!global.pin_env.empty() && global.pin_fd >= 0)
    return usage("--pin-env and --pin-fd exclude each other");
  if (!global.password_env.empty() && global.password_fd >= 0)
    return usage("--password-env and --password-fd exclude each other");
  if (global.verbose > 0 && global.quiet) return usage("-v and -q exclude each other");
  if (tls.tls1_2 && tls.tls1_3) return usage("tls: --tls1_2 and --tls1_3 exclude each other");

  SetQuiet(global.quiet);
  InterruptCleanup::Install();
  doing = "choosing the PKCS#11 module";
  const ModuleChoice::Outcome module = ModuleChoice::Resolve(
      module_option->count() > 0 ? std::optional<std::string>(global.module) : std::nullopt);
  if (!module.path) return module.exit_status;
  global.module_path = *module.path;
  CheckBaseDirectories(global.dirs);
  doing = "running '" + chosen->app->get_name() + "'";
  const int status = chosen->run();
  // What the command printed is only done once it reached its file; a
  // command that failed already said why.
  if (status == k_exit_ok && !FlushStandardOutput()) return k_exit_failed;
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  std::string doing = "reading the command line";
  try {
    return Main(argc, argv, doing);
  } catch (const std::bad_alloc&) {
    return FailPlain("out of memory while " + doing + "; nothing more was done");
  } catch (const std::exception& error) {
    return FailPlain("an unexpected error while " + doing + ": " + error.what());
  } catch (...) {
    return FailPlain("an unexpected error while " + doing);
  }
}
