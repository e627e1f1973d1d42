// The pack, and the tree without values.
#include "config/config.h"
#include "error/error.h"
#include "memory/allocator.h"

namespace {

constexpr char source[] = "qorcore/src/config/config_pack";

bool fail_to_change(const char* path) {
    qor::error::set(qorError_config_fixed, {path});
    return false;
}

class dummy_node final : public qor::object<IQORConfigNode> {
public:
    dummy_node() noexcept : object("qorcore.dummy_node", "IQORConfigNode") {}

    bool GetValue(const char* path, const qorConfigWish& wish, qorConfigValue& out) noexcept override {
        return qor::config::get_value({}, path, wish, out);
    }
    bool GetNames(const char* path, qorStringArray& out) noexcept override {
        return qor::config::get_names({}, path, out);
    }
    bool GetOrigin(const char* path, qorConfigOrigin& out) noexcept override {
        return qor::config::get_origin({}, path, out);
    }
    bool SetValue(const char* path, const qorConfigValue&) noexcept override { return fail_to_change(path); }
    bool SetLiteral(const char* path, const char*) noexcept override { return fail_to_change(path); }
    bool Remove(const char* path) noexcept override { return fail_to_change(path); }
};

class config_pack final : public qor::object<IQORConfigPack> {
public:
    config_pack() noexcept : object("qorcore.config_pack", "IQORConfigPack", "IQORConfigNode") {}

    bool Add(IQORConfigNode* node) noexcept override {
        if (node == nullptr || node == this) {
            qor::error::set(qorError_invalid_argument, {"Add", "node"});
            return false;
        }
        node->AddRef();
        m_nodes.insert(m_nodes.begin(), node);
        return true;
    }
    uint32 GetCount() noexcept override { return static_cast<uint32>(m_nodes.size()); }

    bool GetValue(const char* path, const qorConfigWish& wish, qorConfigValue& out) noexcept override {
        return qor::config::get_value(m_nodes, path, wish, out);
    }
    bool GetNames(const char* path, qorStringArray& out) noexcept override {
        return qor::config::get_names(m_nodes, path, out);
    }
    bool GetOrigin(const char* path, qorConfigOrigin& out) noexcept override {
        return qor::config::get_origin(m_nodes, path, out);
    }
    bool SetValue(const char* path, const qorConfigValue& value) noexcept override {
        return m_nodes.empty() ? fail_to_change(path) : m_nodes.front()->SetValue(path, value);
    }
    bool SetLiteral(const char* path, const char* literal) noexcept override {
        return m_nodes.empty() ? fail_to_change(path) : m_nodes.front()->SetLiteral(path, literal);
    }
    bool Remove(const char* path) noexcept override {
        return m_nodes.empty() ? fail_to_change(path) : m_nodes.front()->Remove(path);
    }

private:
    ~config_pack() override {
        for (IQORConfigNode* const each : m_nodes)
            each->Release();
    }

    std::vector<IQORConfigNode*> m_nodes; // uppermost first, a reference to each
};

} // namespace

void qor::glue::qorCreateDummyConfigNode(IQORConfigNode** out) noexcept {
    if (!memory::make<dummy_node>(source, __LINE__, out))
        *out = nullptr;
}

void qor::glue::qorCreateConfigPack(IQORConfigPack** out) noexcept {
    if (!memory::make<config_pack>(source, __LINE__, out))
        *out = nullptr;
}
