#pragma once
#include "Command.h"
#include "GlobalOptions.h"

namespace x509auth_tool {

struct DoctorOptions {
  bool json = false;
};

// `doctor`: one report for every entry of every certs directory and every
// token certificate: offered or not, and why; the key; TLS readiness.
//
// The decision is the library's own, taken by OfferingReport on its
// internal layer; the module is loaded once, by that layer only.
int RunDoctor(const GlobalOptions& global, const DoctorOptions& options);

// Registers `doctor` and its options on |app|.
Command AddDoctorCommand(CLI::App& app, const GlobalOptions& global);

}  // namespace x509auth_tool
