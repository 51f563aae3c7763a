// x509-auth: the command line of libx509auth. This file only wires the
// options to the commands; each command lives in its own file.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ChainCommand.h"
#include "DecryptCommand.h"
#include "DoctorCommand.h"
#include "GlobalOptions.h"
#include "HelpText.h"
#include "InterruptCleanup.h"
#include "ListCommand.h"
#include "ModuleDirectory.h"
#include "Report.h"
#include "ShowCommand.h"
#include "SignCommand.h"
#include "ThumbprintArgument.h"
#include "TlsCommand.h"
#include "x509_auth.h"

using namespace x509auth_tool;

namespace {

// The tool leaves its working directory before the library starts, so every
// path on the command line is made absolute while it is being read.
const CLI::Validator k_absolute_path(
    [](std::string& path) {
      if (!path.empty() && path != "-")
        path = std::filesystem::absolute(path).lexically_normal().string();
      return std::string();
    },
    "", "absolute");

const CLI::Validator k_thumbprint(
    [](std::string& text) { return ThumbprintArgument::Check(text); }, "THUMBPRINT");

// One entry per command: its CLI11 subcommand and what runs it.
struct Command {
  CLI::App* app;
  std::function<int()> run;
};

}  // namespace

int main(int argc, char** argv) {
  GlobalOptions global;
  CLI::App app{"x509-auth: the client certificates this machine offers, and their keys",
               "x509-auth"};
  app.footer(k_help_footer);
  app.fallthrough();
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("x509-auth " X509AUTH_TOOL_VERSION
                                                ", libx509auth API version ") +
                                        std::to_string(X509_Auth_GetApiVersion()));
  app.add_option("--dir", global.dirs, "Base directory (certs/ and keys/ below it); repeatable")
      ->type_name("BASE")
      ->transform(k_absolute_path);
  app.add_option("--home-dir", global.home_dirs, "Base directory relative to $HOME; repeatable")
      ->type_name("REL");
  app.add_option("--add-ca", global.cas, "Trust this CA certificate (PEM or DER); repeatable")
      ->type_name("FILE")
      ->transform(k_absolute_path)
      ->check(CLI::ExistingFile);
  app.add_option("--module", global.module, "PKCS#11 module to use")
      ->type_name("PATH")
      ->transform(k_absolute_path)
      ->check(CLI::ExistingFile);
  auto* pin_env = app.add_option("--pin-env", global.pin_env, "Take PINs from this variable")
                      ->type_name("VAR");
  app.add_option("--pin-fd", global.pin_fd, "Read PINs from this descriptor, a line each")
      ->type_name("N")
      ->check(CLI::NonNegativeNumber)
      ->excludes(pin_env);
  auto* password_env =
      app.add_option("--password-env", global.password_env, "Take key passwords from this variable")
          ->type_name("VAR");
  app.add_option("--password-fd", global.password_fd,
                 "Read key passwords from this descriptor, a line each")
      ->type_name("N")
      ->check(CLI::NonNegativeNumber)
      ->excludes(password_env);
  auto* verbose = app.add_flag("-v,--verbose", global.verbose,
                               "Show the library's warnings; -vv info, -vvv debug");
  app.add_flag("-q,--quiet", global.quiet, "Show no log lines or notes, only failures")
      ->excludes(verbose);

  std::vector<Command> commands;
  auto add = [&](const char* name, const char* description, std::function<int()> run) {
    CLI::App* sub = app.add_subcommand(name, description);
    commands.push_back({sub, std::move(run)});
    return sub;
  };

  ListOptions list;
  add("list", "List the offered certificates", [&] { return RunList(global, list); })
      ->add_flag("--json", list.json, "A JSON array of objects instead of a table");

  ChainOptions chain;
  CLI::App* chain_app =
      add("chain", "Show a certificate's chain, leaf first", [&] { return RunChain(global, chain); });
  chain_app->add_option("THUMBPRINT", chain.thumbprint, "The certificate")->required()->check(k_thumbprint);
  chain_app->add_flag("--pem", chain.pem, "Write the leaf and the CA certificates the library hands out as PEM");

  SignOptions sign;
  CLI::App* sign_app = add("sign", "Hash the input and sign the digest with a certificate's key",
                           [&] { return RunSign(global, sign); });
  sign_app->add_option("THUMBPRINT", sign.thumbprint, "The certificate")->required()->check(k_thumbprint);
  sign_app->add_option("--hash", sign.hash, "Digest algorithm")
      ->check(CLI::IsMember({"sha1", "sha256", "sha384", "sha512"}))
      ->capture_default_str();
  sign_app->add_option("--in", sign.in, "Input file, - for standard input")
      ->type_name("FILE")
      ->transform(k_absolute_path)
      ->capture_default_str();
  sign_app->add_option("--out", sign.out, "Write the raw signature here instead of hex to stdout")
      ->type_name("FILE")
      ->transform(k_absolute_path);

  DecryptOptions decrypt;
  CLI::App* decrypt_app = add("decrypt", "Decrypt the input with a certificate's RSA key",
                              [&] { return RunDecrypt(global, decrypt); });
  decrypt_app->add_option("THUMBPRINT", decrypt.thumbprint, "The certificate")
      ->required()
      ->check(k_thumbprint);
  decrypt_app->add_option("--padding", decrypt.padding, "RSA padding of the input")
      ->required()
      ->check(CLI::IsMember({"pkcs1", "oaep"}));
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
      ->required()
      ->check(k_thumbprint);

  DoctorOptions doctor;
  add("doctor", "Explain, entry by entry, which certificates are offered and why not",
      [&] { return RunDoctor(global, doctor); })
      ->add_flag("--json", doctor.json, "A JSON array of objects instead of the report");

  TlsOptions tls;
  CLI::App* tls_app = add("tls", "A TLS handshake authenticated with a certificate",
                          [&] { return RunTls(global, tls); });
  tls_app->add_option("TARGET", tls.target, "The server, HOST:PORT")->required();
  tls_app->add_option("--cert", tls.thumbprint, "The certificate (full thumbprint)")
      ->required()
      ->type_name("THUMBPRINT")
      ->check(k_thumbprint);
  tls_app->add_option("--CAfile", tls.ca_file, "CAs to verify the server with (default: the system's)")
      ->type_name("FILE")
      ->transform(k_absolute_path)
      ->check(CLI::ExistingFile);
  tls_app->add_option("--servername", tls.servername, "Name sent (SNI) and checked in the server's certificate")
      ->type_name("NAME");
  auto* tls12 = tls_app->add_flag("--tls1_2", tls.tls1_2, "TLS 1.2 only (what RSA keys need)");
  tls_app->add_flag("--tls1_3", tls.tls1_3, "TLS 1.3 only (EC keys only)")->excludes(tls12);
  tls_app->add_option("--send", tls.send, "Write this line after the handshake and print the reply")
      ->type_name("TEXT");
  tls_app->add_option("--token-key", tls.token_key,
                      "Token keys: used through the library (provider) or exported from the token")
      ->check(CLI::IsMember({"library", "export"}))
      ->capture_default_str();
  tls_app->add_option("--timeout", tls.timeout_seconds, "Seconds to wait for the server")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();

  // The tool's manual belongs to the tool, not to every command's help.
  for (const Command& command : commands) command.app->footer("");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::fprintf(stderr, "x509-auth: %s (see 'x509-auth --help')\n", error.what());
    return k_exit_usage;
  }

  SetQuiet(global.quiet);
  InterruptCleanup::Install();
  for (const Command& command : commands) {
    if (!command.app->parsed()) continue;
    try {
      const ModuleDirectory module_directory(global.module);
      return command.run();
    } catch (const std::exception& error) {
      return Fail(error.what());
    }
  }
  return k_exit_usage;
}
