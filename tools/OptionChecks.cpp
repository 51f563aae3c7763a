#include "OptionChecks.h"

#include <filesystem>
#include <utility>

#include "ThumbprintArgument.h"

namespace x509auth_tool {
namespace {

CLI::Validator Unlabelled(CLI::Validator validator) {
  validator.description("");
  return validator;
}

bool AllDigits(const std::string& text, std::size_t shorter_than) {
  return !text.empty() && text.size() < shorter_than &&
         text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

CLI::Validator AbsolutePath() {
  return CLI::Validator(
      [](std::string& path) {
        if (!path.empty() && path != "-")
          path = std::filesystem::absolute(path).lexically_normal().string();
        return std::string();
      },
      "", "absolute");
}

CLI::Validator Thumbprint() {
  return CLI::Validator([](std::string& text) { return ThumbprintArgument::Check(text); }, "",
                        "thumbprint");
}

CLI::Validator ExistingFile() { return Unlabelled(CLI::ExistingFile); }

CLI::Validator Descriptor() {
  return CLI::Validator(
      [](std::string& text) {
        return AllDigits(text, 10) ? std::string()
                                   : "not a file descriptor number: " + text + " (0, 1, 2, ...)";
      },
      "", "descriptor");
}

CLI::Validator Seconds() {
  return CLI::Validator(
      [](std::string& text) {
        return AllDigits(text, 7) && std::stol(text) > 0
                   ? std::string()
                   : "not a number of seconds: " + text + " (1 or more)";
      },
      "", "seconds");
}

CLI::Validator OneOf(std::vector<std::string> choices) {
  return Unlabelled(CLI::IsMember(std::move(choices)));
}

void AddThumbprintArgument(CLI::App& command, std::string& thumbprint) {
  command.add_option("THUMBPRINT", thumbprint, "The certificate")
      ->type_name("")
      ->required()
      ->check(Thumbprint());
}

void AddInputAndOutput(CLI::App& command, std::string& in, std::string& out,
                       const std::string& out_help) {
  command.add_option("--in", in, "Input file, - for standard input")
      ->type_name("FILE")
      ->transform(AbsolutePath())
      ->capture_default_str();
  command.add_option("--out", out, out_help)->type_name("FILE")->transform(AbsolutePath());
}

}  // namespace x509auth_tool
