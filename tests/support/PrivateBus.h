// A private dbus-daemon for the service's tests and benchmarks: a session bus
// listening on a socket of its own, open to everyone (the daemon's own access
// checks are what is under test, not the bus's policy).
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace vorn::test {

// Starts `argv` (its program looked up on PATH) with its standard output on
// `stdoutFd` when that is given and its standard error on /dev/null when
// `quiet`; the pid, or -1.
inline pid_t Spawn(const std::vector<std::string>& argv, int stdoutFd = -1, bool quiet = false) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdoutFd >= 0) posix_spawn_file_actions_adddup2(&actions, stdoutFd, 1);
    if (quiet) posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    const int r = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return r == 0 ? pid : -1;
}

// Writes the bus's configuration to `dir`/bus.conf, starts dbus-daemon on the
// socket `dir`/bus and returns its address ("" when it printed none); its pid
// goes to `pid` (-1 when it could not be started).
inline std::string StartPrivateBus(const std::string& dir, pid_t* pid, bool quiet = false) {
    const std::string config = dir + "/bus.conf";
    std::ofstream(config) << "<busconfig><type>session</type><listen>unix:path=" << dir
                          << "/bus</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                             "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                             "<allow own=\"*\"/></policy></busconfig>\n";
    int fds[2];
    *pid = -1;
    if (pipe(fds) != 0) return "";
    *pid = Spawn({"dbus-daemon", "--config-file=" + config, "--nofork", "--print-address=1"}, fds[1], quiet);
    close(fds[1]);
    char line[512] = {};
    ssize_t got = 0, n;
    while (got < 511 && (n = read(fds[0], line + got, 511 - got)) > 0 && !std::strchr(line, '\n')) got += n;
    close(fds[0]);
    const char* end = std::strchr(line, '\n');
    return end ? std::string(line, static_cast<std::size_t>(end - line)) : std::string();
}

}  // namespace vorn::test
