// The configuration of a private dbus-daemon for the service's tests and
// benchmarks: a session bus listening on `socket`, open to everyone (the
// daemon's own access checks are what is under test, not the bus's policy).
#pragma once

#include <fstream>
#include <string>

namespace vorn::test {

// Writes the configuration to `config`.
inline void WritePrivateBusConfig(const std::string& config, const std::string& socket) {
    std::ofstream(config) << "<busconfig><type>session</type><listen>unix:path=" << socket
                          << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                             "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                             "<allow own=\"*\"/></policy></busconfig>\n";
}

}  // namespace vorn::test
