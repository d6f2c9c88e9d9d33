#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <optional>
#include <utility>

#include "base/exception.h"
#include "base/shared.h"
#include "base/unique_fd.h"
#include "client/doctor/checks.h"
#include "client/exchange.h"
#include "client/request.h"

// From the file to the response, each check one step further on the way of a request. The first one
// that fails is the cause, and the later ones are not made.
//
// A connect() of its own, and not only the exchange with the daemon, because the errno and the
// types of socket that the kernel refuses tell the causes apart.

namespace {

using Clock = std::chrono::steady_clock;

struct Connection {
  Base::UniqueFd socket;
  std::string type;  // of the listening socket; empty while that is not known
  int error = 0;
};

// A connect() with another type of socket than the listener's fails with EPROTOTYPE, after the
// check of the file's permissions.
Connection Connect(Net::Address const& address) {
  constexpr auto types = std::to_array<std::pair<int, char const*>>(
      {{SOCK_SEQPACKET, "seqpacket"}, {SOCK_STREAM, "stream"}, {SOCK_DGRAM, "dgram"}});
  Connection connection;
  for (auto const& [type, name] : types) {
    connection.socket.Reset(socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!connection.socket) throw Base::ExceptionPosix(errno);
    int const result = connect(connection.socket.Get(), address.GetData(), address.GetLength());
    connection.error = result == 0 ? 0 : errno;
    if (connection.error == 0) connection.type = name;
    if (connection.error != EPROTOTYPE) break;
  }
  return connection;
}

// EAGAIN is a full backlog. A busy daemon soon accepts the clients in it.
Connection ConnectWithPatience(Net::Address const& address, std::chrono::seconds patience) {
  auto const deadline = Clock::now() + patience;
  for (;;) {
    Connection connection = Connect(address);
    if (connection.error != EAGAIN || Clock::now() >= deadline) return connection;
    constexpr int pauseMs = 20;
    poll(nullptr, 0, pauseMs);
  }
}

bool IsGroupOfThisProcess(gid_t gid) {
  std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
  if (getgroups(static_cast<int>(groups.size()), groups.data()) == -1) return false;
  return gid == getegid() || std::ranges::find(groups, gid) != groups.end();
}

bool IsGroupInDatabase(std::string const& user, gid_t gid) {
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 16384> texts;
  getpwnam_r(user.c_str(), &entry, texts.data(), texts.size(), &found);
  if (found == nullptr) return false;
  int count = 65536;  // the kernel's limit for a process (NGROUPS_MAX)
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  if (getgrouplist(user.c_str(), entry.pw_gid, groups.data(), &count) == -1) return false;
  groups.resize(static_cast<std::size_t>(count));
  return std::ranges::find(groups, gid) != groups.end();
}

// The user may search the folders of the path: `CheckSocket` has found the file. So the file's mode
// refuses, unless a security module does.
void AddPermissionDenied(Findings& findings, std::string const& where) {
  struct stat file {};
  if (findings.socketFile) file = *findings.socketFile;
  std::string const user = GetUserName(geteuid());
  std::string const group = GetGroupName(file.st_gid);
  nlohmann::json const fields{{"user", user}, {"group", group}};
  // Nobody should become a member of root's group for this.
  bool const isForGroup = (file.st_mode & S_IWGRP) != 0 && file.st_gid != 0;
  if (isForGroup && !IsGroupOfThisProcess(file.st_gid)) {
    if (IsGroupInDatabase(user, file.st_gid)) {
      findings.AddProblem("connection", CheckState::Failed, "socket-login-needed",
                          "The user " + user + " is in the group " + group +
                              ", but this process is not: the user has not logged in since",
                          fields);
    } else {
      findings.AddProblem("connection", CheckState::Failed, "socket-permission-denied",
                          "The user " + user + " may not connect to " + where +
                              ": only root and the members of the group " + group + " may",
                          fields);
    }
  } else if (!isForGroup && findings.socketFile) {
    std::string const owner = GetUserName(file.st_uid);
    findings.AddProblem(
        "connection", CheckState::Failed, "socket-only-for-owner",
        "The user " + user + " may not connect to " + where + ": only root and " + owner + " may",
        {{"user", user}, {"owner", owner}});
  } else {
    findings.AddProblem(
        "connection", CheckState::Failed, "socket-unreachable",
        "The system refuses the connection to " + where + " although no mode forbids it",
        {{"path", where}});
  }
}

std::string GetProcessName(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(file, name);
  return name.empty() ? "unknown" : name;
}

constexpr char const* request = R"({"sensor":{"hardware":null}})";

// Null for a text that is no response.
void AddResponse(Findings& findings, std::string const& text, nlohmann::json facts) {
  nlohmann::json const response = ParseResponse(text);
  if (response.is_null()) {
    findings.AddProblem("question", CheckState::Failed, "response-broken",
                        "The response of the daemon is broken", facts);
    return;
  }
  std::string const status = response["status"].get<std::string>();
  nlohmann::json const serialNumber = response.value(
      nlohmann::json::json_pointer("/sensor/hardware/bios_serial_number"), nlohmann::json());
  std::string const time = std::to_string(facts["milliseconds"].get<std::int64_t>()) + " ms";
  facts["status"] = status;
  if (status == "Success" && serialNumber.is_string()) {
    findings.serialNumber = serialNumber.get<std::string>();
    findings.AddOk("question", "The daemon answered with a serial number in " + time, facts);
  } else if (HasFirmwareTables()) {
    findings.AddProblem("question", CheckState::Failed, "no-serial-number",
                        "The daemon answered " + status + " in " + time, facts);
  } else {
    findings.AddProblem(
        "question", CheckState::Warning, "no-serial-number-without-tables",
        "The daemon answered " + status + " in " + time + ": this machine has no firmware tables",
        facts);
  }
}

}  // namespace

Findings CheckSocket(Findings findings) {
  std::string const path = findings.options.address.GetUnixPath();
  if (path.empty()) {
    findings.AddOk("socket",
                   findings.options.address.ToText() +
                       " is a name in the abstract namespace: it has no file and no mode");
    return findings;
  }
  struct stat file {};
  int const error = stat(path.c_str(), &file) == -1 ? errno : 0;
  nlohmann::json facts{{"path", path}};
  if (error == ENOENT || error == ENOTDIR) {
    findings.AddProblem("socket", CheckState::Failed, "socket-missing", "There is no file " + path,
                        facts);
  } else if (error == EACCES) {
    findings.AddProblem(
        "socket", CheckState::Failed, "socket-folder-denied",
        "The user " + GetUserName(geteuid()) + " may not look into a folder of " + path, facts);
  } else if (error != 0) {
    findings.AddProblem("socket", CheckState::Failed, "socket-unreachable",
                        "Cannot look at " + path + ": " + Base::ErrnoText(error), facts);
  } else if (!S_ISSOCK(file.st_mode)) {
    findings.AddProblem("socket", CheckState::Failed, "socket-not-a-socket",
                        "The file " + path + " is not a socket", facts);
  } else {
    findings.socketFile = file;
    facts["mode"] = GetModeText(file.st_mode);
    facts["owner"] = GetUserName(file.st_uid);
    facts["group"] = GetGroupName(file.st_gid);
    findings.AddOk("socket",
                   path + " is a socket of mode " + facts["mode"].get<std::string>() + ", owner " +
                       facts["owner"].get<std::string>() + ", group " +
                       facts["group"].get<std::string>(),
                   facts);
  }
  return findings;
}

Findings CheckConnection(Findings findings) {
  if (findings.HasProblem("socket")) {
    findings.AddNotChecked("connection", "socket");
    return findings;
  }
  Net::Address const& address = findings.options.address;
  std::string const path = address.GetUnixPath();
  std::string const where = path.empty() ? address.ToText() : path;
  nlohmann::json const fields{{"path", where}};
  Connection const connection = ConnectWithPatience(address, findings.options.timeout);
  if (connection.error == EACCES) {
    AddPermissionDenied(findings, where);
  } else if (connection.error == ECONNREFUSED) {
    findings.AddProblem("connection", CheckState::Failed,
                        path.empty() ? "name-without-listener" : "socket-dead",
                        "Nobody listens on " + where, fields);
  } else if (connection.error == EAGAIN) {
    findings.AddProblem("connection", CheckState::Failed, "socket-busy",
                        "Too many clients wait on " + where + ": nobody accepts them", fields);
  } else if (connection.error != 0) {
    findings.AddProblem("connection", CheckState::Failed, "socket-unreachable",
                        "Cannot connect to " + where + ": " + Base::ErrnoText(connection.error),
                        fields);
  } else if (connection.type == "dgram") {
    findings.AddProblem("connection", CheckState::Failed, "socket-wrong-type",
                        where + " is a datagram socket", fields);
  } else {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(connection.socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == -1)
      throw Base::ExceptionPosix(errno);
    findings.server = {.pid = peer.pid, .uid = peer.uid, .gid = peer.gid};
    findings.AddOk(
        "connection",
        "The user " + GetUserName(geteuid()) + " may connect, to a " + connection.type + " socket",
        {{"type", connection.type}});
  }
  return findings;
}

Findings CheckServer(Findings findings) {
  if (!findings.server) {
    findings.AddNotChecked("server", "connection");
    return findings;
  }
  std::string const user = GetUserName(findings.server->uid);
  std::string const process = GetProcessName(findings.server->pid) + ", process " +
                              std::to_string(findings.server->pid) + " of the user " + user;
  nlohmann::json const facts{
      {"pid", findings.server->pid}, {"uid", findings.server->uid}, {"user", user}};
  if (findings.server->uid != 0 && findings.server->uid != geteuid()) {
    findings.AddProblem("server", CheckState::Failed, "server-foreign",
                        "The server is " + process + ", neither of root nor of this user", facts);
  } else {
    findings.AddOk("server", "The server is " + process, facts);
  }
  return findings;
}

Findings CheckQuestion(Findings findings) {
  if (findings.HasProblem("server")) {
    findings.AddNotChecked("question", "server");
    return findings;
  }
  auto const start = Clock::now();
  auto const exchange = Base::MakeShared<Exchange>(findings.options.address, request);
  std::optional<Exchange::Outcome> const outcome = exchange->Run(findings.options.timeout);
  auto const time =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  nlohmann::json const facts{{"milliseconds", time}};
  if (!outcome) {
    findings.AddProblem("question", CheckState::Failed, "response-late",
                        "The daemon has not answered within " +
                            std::to_string(findings.options.timeout.count()) + " s",
                        facts);
    return findings;
  }
  if (outcome->isResponse) {
    AddResponse(findings, outcome->text, facts);
  } else {
    findings.AddProblem("question", CheckState::Failed, "no-response", outcome->text, facts);
  }
  return findings;
}
