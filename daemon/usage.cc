#include "daemon/usage.h"

#include <array>
#include <string_view>

namespace {

struct Setting {
  std::string_view form;
  std::string_view environmentName;
  std::string_view defaultValue;
  std::string_view meaning;
};

constexpr auto settings = std::to_array<Setting>({
    {"--socket=ADDRESS", "KESTREL_SOCKET", "com.norvel.kestrel",
     "where to listen: a path if it has a \"/\", else a name in the abstract namespace"},
    {"--activated", "KESTREL_ACTIVATED", "false",
     "listen on the socket that systemd hands over, and leave when idle"},
    {"--activated-period=SECONDS", "KESTREL_ACTIVATED_PERIOD", "300",
     "how long an activated daemon stays without a client"},
    {"--command-timeout=SECONDS", "KESTREL_COMMAND_TIMEOUT", "10",
     "how long a command of a sensor may take; 0 for any time"},
    {"--igel-management-cert-path=FOLDER", "KESTREL_IGEL_MANAGEMENT_CERT_PATH",
     "/wfs/igel-rmagent/trust-store", "the folder of the IGEL management certificates"},
    {"--openssl-fingerprint-any-case", "KESTREL_OPENSSL_FINGERPRINT_ANY_CASE", "false",
     "take the fingerprint that OpenSSL 3 prints, which is \"sha256\" in lower case"},
    {"--max-connections-per-user=COUNT", "KESTREL_MAX_CONNECTIONS_PER_USER", "64",
     "how many connections a user other than root may have open; 0 for no limit"},
    {"--request-timeout=SECONDS", "KESTREL_REQUEST_TIMEOUT", "30",
     "how long all commands of one request may take together; 0 for no limit"},
    {"--trace-level=LEVEL", "KESTREL_TRACE_LEVEL", "4",
     "0 FATAL, 1 ERROR, 2 WARNING, 3 INFO, 4 VERBOSE, 5 DEBUG"},
    {"--trace-console", "KESTREL_TRACE_CONSOLE", "off",
     "trace to standard output, errors to standard error; present is on, whatever the value"},
    {"--trace-syslog", "KESTREL_TRACE_SYSLOG", "off",
     "trace to syslog; present is on, whatever the value"},
    {"--trace-folder=FOLDER", "KESTREL_TRACE_FOLDER", "/tmp/",
     "the folder of the trace file ktclientd.log"},
    {"--trace-file=FILE", "KESTREL_TRACE_FILE", "none",
     "the whole path of the trace file; overrides --trace-folder"},
    {"--logging-file=FILE", "KESTREL_LOGGING_FILE", "none",
     "the same, where --trace-file is not given"},
    {"--trace-file-prefix=BOOLEAN", "KESTREL_TRACE_FILE_PREFIX", "false",
     "date, time and process id before the trace file's name"},
    {"--trace-file-max-size=BYTES", "KESTREL_TRACE_FILE_MAX_SIZE", "0",
     "size at which the trace file is renamed to \".1\" and begun anew; 0: no limit"},
    {"--trace-stringptr-maxlen=LENGTH", "KESTREL_TRACE_STRINGPTR_MAXLEN", "64",
     "how many characters of a C string a trace field shows"},
});

}  // namespace

std::string GetDaemonUsage() {
  std::string text =
      "Usage: ktclientd [--NAME=VALUE | --NAME:VALUE | --FLAG]...\n"
      "Answers device-posture questions on a Unix socket.\n"
      "\n"
      "Each setting is an argument or a variable of the environment, which wins over the "
      "argument.\n"
      "\n";
  for (Setting const& setting : settings) {
    text.append("  ").append(setting.form).append("\n");
    text.append("      ").append(setting.meaning).append("\n");
    text.append("      environment: ").append(setting.environmentName);
    text.append(", default: ").append(setting.defaultValue).append("\n");
  }
  text.append(
      "\n"
      "  --help       print this and exit\n"
      "  --version    print the version and exit\n"
      "\n"
      "Limits that no setting changes: 131072 bytes for a request, 1 MiB of unread responses for "
      "a\n"
      "connection, 4 MiB of memory for a user, 30 seconds without progress of a packet or "
      "response.\n"
      "\n"
      "Exit status: 0; 1 when the daemon could not start.\n");
  return text;
}
