#pragma once

#include <CLI/CLI.hpp>

// Each function adds one command, or a group of them, to its parent. The command runs while the
// command line is parsed and throws UsageError, Failure or velum::SystemError when it fails.
namespace velumctl {

void addLogsShow(CLI::App& logs);
void addLogsSave(CLI::App& logs);
void addLogsReset(CLI::App& logs);
void addSupportArchive(CLI::App& support);
void addRun(CLI::App& app);
void addKeychain(CLI::App& app);
void addDefaults(CLI::App& app);
void addStorage(CLI::App& app);
void addEncryption(CLI::App& app);
void addNotify(CLI::App& app);
void addRequest(CLI::App& app);
void addRespond(CLI::App& app);
void addHttp(CLI::App& app);
void addSysinfo(CLI::App& app);
void addTelemetry(CLI::App& app);
void addVerifyPeer(CLI::App& app);
void addCerts(CLI::App& app);
void addWatch(CLI::App& app);

}  // namespace velumctl
