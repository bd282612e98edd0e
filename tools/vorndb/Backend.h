// The database the tool's commands talk to: the one the tool creates in its
// own process (LocalBackend, over a Session), or the one a running vorndbd
// serves (RemoteBackend, Remote.h).
//
// Both give the same output and the same failures (exit code and message) for
// the same state: the remote side rebuilds the local message from the
// daemon's error name and the component's reason it carries. A Node from a
// remote backend has no interface pointer: commands use its full name, own
// name and family only.
//
// Watch output ("watch: NAME = VALUE") comes from the notification thread
// locally; remotely it is printed when the tool reads the daemon's Changed
// signals: during `wait`, and after every command (Deliver).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Session.h"

namespace vorndb {

class Backend {
public:
    virtual ~Backend() = default;

    // The node with exactly this full name ("" is the root). Throws
    // ToolError(kExitUnknownName) with the closest names otherwise.
    virtual Node Resolve(const std::string& fullName) = 0;
    // The node's children in declaration order; none for a parameter.
    virtual std::vector<Node> Children(const Node& node) = 0;
    // The node's value, status and limits as Session::Read gives them.
    virtual Reading Read(const Node& node, std::size_t maxItems = 0) = 0;
    // Reads `text` for the node's family and writes it: S_OK or S_FALSE
    // (unchanged). Throws ToolError(kExitRejected) as Session::Write does.
    virtual HRESULT Write(const Node& node, const std::string& text) = 0;
    // Assigns true to the export trigger `trigger`, which writes `path`.
    // Throws ToolError(kExitFailure) for a failed call, ToolError(kExitFile)
    // when the export reports that the file was not written.
    virtual void Export(const Node& trigger, const std::string& path) = 0;
    // Back to the defaults: the whole tree for null, else the node. Throws
    // ToolError(kExitFailure) with the reason.
    virtual void Reset(const Node* node) = 0;
    // Settings files, as Session::SaveSettings and Session::LoadSettings.
    virtual void Save(const std::string& path, const Node& node) = 0;
    virtual Node Load(const std::string& path) = 0;

    // Starts printing the changes at or below the node; false when it is
    // watched already. Throws ToolError.
    virtual bool Watch(const Node& node) = 0;
    // The full names watched, in the order watched.
    virtual std::vector<std::string> Watched() const = 0;
    // Stops one watch (a name Watched() lists) or, for null, every watch.
    virtual void Unwatch(const std::string* fullName) = 0;
    // Waits until the notifications queued so far are printed, at most `ms`
    // (INFINITE: no limit). Throws ToolError(kExitFailure) when some are
    // still pending then, or the wait failed.
    virtual void Wait(ULONG ms) = 0;
    // Prints the notifications that have arrived, without waiting.
    virtual void Deliver() {}
    // Gives queued notifications `ms` to arrive, then stops every watch.
    // Never throws.
    virtual void Finish(ULONG ms) noexcept = 0;
};

// The backend over the tool's own Session (which must outlive it).
std::unique_ptr<Backend> MakeLocalBackend(Session& session);

}  // namespace vorndb
