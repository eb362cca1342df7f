#include "admin/cli/commands/TarnAdminSetInstance.h"

#include <cstdio>

#include "admin/cli/show/RecordText.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "runtime/qel_io.h"

constinit const QelString TarnAdminSetInstance::m_cmdFormat(QelLiteral("set instance <instance>"));

TarnAdminSetInstance::TarnAdminSetInstance(TarnAdminConfig* config)
    : TarnAdminCmd(m_cmdFormat.data()), m_config(config) {}

TarnAdminSetInstance::~TarnAdminSetInstance() {
    clearHandles();
}

std::uint32_t TarnAdminSetInstance::initialize() {
    return initializeHandles(nullptr);
}

std::uint32_t TarnAdminSetInstance::executeCmd(void* const& /*handle*/, olm_dsess_admin_sec_info_t const& /*secInfo*/,
                                               TarnAdminCmdTokens const& tokens) {
    return initializeHandles(tokens[2]);
}

std::uint32_t TarnAdminSetInstance::initializeHandles(const char* instance) {
    clearHandles();
    const TarnAdminConfig::ServerURLs* urls = m_config->serverURLs(instance);
    if (urls == nullptr) {
        qel_flush_output();
        const char* const name = instance != nullptr ? instance : m_config->defaultInstance().data();
        qel_fprintf(stderr, kMsgUnknownInstance, RecordText(name).data());
        return kStatusUnknownName;
    }
    std::uint32_t status = olm_dsess_admin_initialize(m_config->timeout(), urls, &m_config->sslInfo(),
                                                      olmdsess_admin_client_trace, &m_context);
    if (status == 0) {
        status = olm_dsess_admin_create_handle(m_context, &m_handle);
        if (status != 0) {
            m_handle = nullptr;  // whatever the failure left there is no handle
        }
    }
    return status;
}

void TarnAdminSetInstance::clearHandles() {
    if (m_handle != nullptr) {
        olm_dsess_admin_release_handle(m_context, &m_handle);
        m_handle = nullptr;
    }
    if (m_context != nullptr) {
        olm_dsess_admin_shutdown(&m_context);
        m_context = nullptr;
    }
}
