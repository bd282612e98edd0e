// The local backend: the commands' database is the tool's own Session, and
// watches are queued notification sinks printing from the notification thread.
#include "Backend.h"

#include "WatchSink.h"

namespace vorndb {

namespace {

class LocalBackend final : public Backend {
public:
    explicit LocalBackend(Session& session) : session_(session) {}
    ~LocalBackend() override { Finish(0); }

    Node Resolve(const std::string& fullName) override { return session_.Resolve(fullName); }
    std::vector<Node> Children(const Node& node) override { return session_.Children(node); }
    Reading Read(const Node& node, std::size_t maxItems) override { return session_.Read(node, maxItems); }
    HRESULT Write(const Node& node, const std::string& text) override { return session_.Write(node, text); }

    // The export reports a failure as the success code 6 with its reason as
    // error information.
    void Export(const Node& trigger, const std::string& path) override {
        vorn::ComPtr<IParameterBoolean> flag;
        HRESULT hr = trigger.object->QueryInterface(IID_IParameterBoolean, flag.put_void());
        if (SUCCEEDED(hr)) hr = flag->put_Value(VARIANT_TRUE);
        if (FAILED(hr)) throw ToolError(kExitFailure, "export: " + DescribeHresult(hr, flag.get()));
        if ((hr & 6) == 6) {
            vorn::ComPtr<IErrorInfo> info;
            BSTR reason = nullptr;
            if (GetErrorInfo(0, info.put()) == S_OK && info) info->GetDescription(&reason);
            const std::string text = TakeBstr(reason);
            throw ToolError(kExitFile, "export: " + (text.empty() ? path + " was not written" : text));
        }
    }

    void Reset(const Node* node) override {
        if (!node) {
            session_.Database()->Reset();
            return;
        }
        const HRESULT hr = node->object->ResetPutValue();
        if (FAILED(hr))
            throw ToolError(kExitFailure, "reset " + Label(*node) + ": " + DescribeHresult(hr, node->object.get()));
    }

    void Save(const std::string& path, const Node& node) override { session_.SaveSettings(path, node); }
    Node Load(const std::string& path) override { return session_.LoadSettings(path); }

    bool Watch(const Node& node) override {
        for (const auto& w : watches_)
            if (w->Watched().fullName == node.fullName) return false;
        vorn::ComPtr<WatchSink> sink = vorn::ComPtr<WatchSink>::adopt(new WatchSink(session_, node));
        const HRESULT hr = node.object->RegisterNotification(sink.get());
        if (FAILED(hr))
            throw ToolError(kExitFailure, "watch " + Label(node) + ": " + DescribeHresult(hr, node.object.get()));
        watches_.push_back(sink);
        return true;
    }

    std::vector<std::string> Watched() const override {
        std::vector<std::string> names;
        for (const auto& w : watches_) names.push_back(w->Watched().fullName);
        return names;
    }

    void Unwatch(const std::string* fullName) override {
        for (auto it = watches_.begin(); it != watches_.end();) {
            if (fullName && (*it)->Watched().fullName != *fullName) {
                ++it;
                continue;
            }
            (*it)->Watched().object->UnregisterNotification(it->get());
            it = watches_.erase(it);
        }
    }

    void Wait(ULONG ms) override {
        const HRESULT hr = session_.Database()->WaitForNotifications(ms);
        if (hr == E_ABORT)
            throw ToolError(kExitFailure, "wait: notifications still pending after " + std::to_string(ms) + " ms");
        if (FAILED(hr)) throw ToolError(kExitFailure, "wait: " + DescribeHresult(hr, session_.Database()));
    }

    void Finish(ULONG ms) noexcept override {
        if (watches_.empty()) return;
        if (ms) session_.Database()->WaitForNotifications(ms);
        Unwatch(nullptr);
    }

private:
    Session& session_;
    std::vector<vorn::ComPtr<WatchSink>> watches_;
};

}  // namespace

std::unique_ptr<Backend> MakeLocalBackend(Session& session) { return std::make_unique<LocalBackend>(session); }

}  // namespace vorndb
