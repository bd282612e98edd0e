// The remote backend: the commands run against the database a running
// vorndbd serves (docs/service.md), over the bus or its direct socket, with
// sd-bus calls to io.vorndb.Database1 on /io/vorndb/Database.
//
// Names, values and limits are the daemon's text (GetText, List, Describe),
// which it makes with the same code as the tool. A refusal is the D-Bus error
// io.vorndb.Error.<Name> with the component's reason; it is turned back into
// the tool's exit code and message (UnknownName: 3; a refused value: 4 with
// the HRESULT's meaning, the reason and the limits, as a local write gives).
// Settings files travel as file descriptors (Save, Load): the tool reads and
// writes the files, the daemon only the descriptors. A method the daemon does
// not serve is reported by name.
#pragma once

#include <memory>
#include <string>

#include "Backend.h"

namespace vorndb {

struct RemoteOptions {
    enum class Path { Bus, Socket } path = Path::Bus;
    enum class Bus { System, Session, Address } bus = Bus::System;
    std::string address;  // Bus::Address
    std::string socket;   // Path::Socket; empty: the daemon's default
};

// The direct socket a daemon started by systemd listens on:
// $RUNTIME_DIRECTORY/vorndbd.socket when set, else /run/vorndb/vorndbd.socket.
std::string DefaultSocketPath();

// Connects to the daemon. Throws ToolError(kExitFailure) saying where it
// looked and why it failed.
std::unique_ptr<Backend> ConnectRemote(const RemoteOptions& options);

}  // namespace vorndb
