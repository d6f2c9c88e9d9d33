#include "client/doctor/advice.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "base/exception.h"

namespace {

struct Advice {
  std::string_view code;
  std::string_view text;
};

constexpr auto table = std::to_array<Advice>({
    // Every check.
    {"earlier-problem", "First solve what the check \"{check}\" has found."},
    {"needs-root", "Run ktclientctl doctor as root."},
    {"check-late",
     "Something that this check reads does not respond, such as a network file system or a name "
     "service. Look for processes in the state D, and at the messages of the kernel."},
    {"check-unfinished", "Repeat with a longer --timeout. Then run what is named here by hand."},
    // socket
    {"socket-missing",
     "Start the socket: systemctl enable --now ktclientd.socket. If the daemon listens elsewhere, "
     "name its address with --socket."},
    {"socket-not-a-socket",
     "Remove {path}, then start the socket again: systemctl restart ktclientd.socket."},
    {"socket-folder-denied", "Let this user search each folder of {path}."},
    {"socket-unreachable",
     "Look for a link that leads to itself, an access control list, or a security module such as "
     "AppArmor on the way to {path}."},
    // connection
    {"socket-permission-denied",
     "As root run: usermod --append --groups {group} {user}. Then log in again."},
    {"socket-login-needed", "Log out and log in again: a process gets its groups at the login."},
    {"socket-only-for-owner",
     "Give the socket to a group with SocketGroup= and SocketMode=0660 in a drop-in of "
     "ktclientd.socket. This user must be in the group."},
    {"socket-dead",
     "Start the socket again: systemctl restart ktclientd.socket. A daemon without systemd must "
     "itself be started again."},
    {"name-without-listener", "Start the daemon, or name its address with --socket."},
    {"socket-busy",
     "The daemon hangs, or has no descriptor left. Restart it: systemctl restart "
     "ktclientd.service."},
    {"socket-wrong-type",
     "Use ListenSequentialPacket= or ListenStream= for this address, or name another one with "
     "--socket."},
    // server
    {"server-foreign",
     "Do not trust this server. Find out with \"ps -f -p {pid}\" what it is, end it, and start "
     "the socket again: systemctl restart ktclientd.socket."},
    // question
    {"response-late",
     "Look in the daemon's trace for a command that takes too long. If there is none, restart the "
     "daemon: systemctl restart ktclientd.service."},
    {"no-response", "Read the daemon's log: journalctl --unit=ktclientd.service."},
    {"response-broken", "Make sure that the server is ktclientd: see the check \"server\"."},
    {"no-serial-number",
     "See the checks \"dmidecode\" and \"serial-number\". If both are ok, the daemon's sandbox or "
     "its user is the reason: journalctl --unit=ktclientd.service."},
    {"no-serial-number-without-tables", "See the check \"serial-number\"."},
    // socket-unit, service-unit
    {"systemd-not-running", "Nothing is wrong where the daemon is started without systemd."},
    {"unit-not-installed",
     "Nothing is wrong where the daemon is started in another way. Else install ktclientd again."},
    {"unit-masked", "Run: systemctl unmask {unit}. Then: systemctl enable --now ktclientd.socket."},
    {"unit-not-loaded", "Run: systemd-analyze verify {unit}. Then correct the file that it names."},
    {"unit-failed",
     "Read why: journalctl --unit={unit}. Then: systemctl reset-failed ktclientd.service "
     "ktclientd.socket; systemctl restart ktclientd.socket."},
    {"unit-not-ready", "Read why its start does not end: journalctl --unit={unit}."},
    {"unit-changed", "Run: systemctl daemon-reload."},
    {"unit-for-other-address", "To check the service: ktclientctl --socket={listen} doctor."},
    {"socket-unit-stopped", "Run: systemctl enable --now ktclientd.socket."},
    {"socket-unit-disabled", "Run: systemctl enable ktclientd.socket."},
    // dmidecode, serial-number
    {"dmidecode-missing",
     "Install dmidecode, or set PATH= of the service so that it has the folder of dmidecode."},
    {"firmware-tables-missing",
     "Nothing can be repaired in the daemon. A container must get the folder from its host, and a "
     "virtual machine an SMBIOS from its hypervisor; some boards have none."},
    {"dmidecode-denied",
     "Run the daemon as root. If it does: look for a sandbox, a security module or the kernel's "
     "lockdown mode."},
    {"dmidecode-failed", "Run as root: dmidecode -s system-serial-number."},
    {"serial-number-empty", "Set the serial number with the tool of the machine's maker."},
    {"serial-number-placeholder", "Set the serial number with the tool of the machine's maker."},
    // trust-store, openssl
    {"not-igel", "Nothing is wrong."},
    {"trust-store-missing",
     "Register the device with its management server. If the certificates are in another folder, "
     "set KESTREL_IGEL_MANAGEMENT_CERT_PATH in /etc/default/ktclientd."},
    {"trust-store-unreadable", "Make {path} a folder of root with the mode 0755."},
    {"trust-store-empty", "Register the device with its management server."},
    {"openssl-missing",
     "Install openssl, or set PATH= of the service so that it has the folder of openssl."},
    {"certificate-broken", "Replace these files, or remove them."},
    {"fingerprint-case",
     "Write KESTREL_OPENSSL_FINGERPRINT_ANY_CASE=true to /etc/default/ktclientd. Then: systemctl "
     "restart ktclientd.service."},
    // version, descriptors, trace-file
    {"daemon-not-found",
     "Start it with a request: ktclientctl hardware. Then repeat this command."},
    {"version-differs",
     "Restart the daemon: systemctl restart ktclientd.service. If that does not help, install "
     "ktclientd again."},
    {"descriptors-low",
     "End clients that keep connections open, or raise LimitNOFILE= with a drop-in of "
     "ktclientd.service."},
    {"trace-file-missing",
     "Make the folder {folder} and let only the daemon's user write to it. Then restart the "
     "daemon."},
    {"trace-file-open", "Run: chmod 0600 {path}."},
    {"trace-file-large",
     "Set KESTREL_TRACE_FILE_MAX_SIZE=16777216 in /etc/default/ktclientd. Then: systemctl restart "
     "ktclientd.service."},
});

std::string GetText(nlohmann::json const& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace

std::string GetAdvice(std::string_view code, nlohmann::json const& fields) {
  auto const* const advice = std::ranges::find(table, code, &Advice::code);
  if (advice == table.end()) throw Base::Exception("Unknown code " + std::string(code));
  std::string text(advice->text);
  for (auto const& [name, value] : fields.items()) {
    std::string const place = "{" + name + "}";
    auto const begin = text.find(place);
    if (begin != std::string::npos) text.replace(begin, place.size(), GetText(value));
  }
  return text;
}
