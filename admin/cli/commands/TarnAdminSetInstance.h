/// set instance: selects the server instance that later commands administer. Owns the client library's context and
/// handle of that instance.
#pragma once

#include "admin/cli/config/TarnAdminConfig.h"
#include "admin/cli/language/TarnAdminCmd.h"
#include "catalogue/QelString.h"

class TarnAdminSetInstance : public TarnAdminCmd {
  public:
    /// `config` is not null and must outlive the command: the client library reads its URLs and SSL settings while an
    /// instance is selected.
    explicit TarnAdminSetInstance(TarnAdminConfig* config);
    ~TarnAdminSetInstance() override;

    /// Selects the default instance. Returns 0 or a status.
    [[nodiscard]] std::uint32_t initialize();
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

    /// The handle of the selected instance; null while there is none.
    void* const& handle() const { return m_handle; }

  private:
    /// Releases the selected instance, then selects the one named, or the default one if the name is null.
    [[nodiscard]] std::uint32_t initializeHandles(const char* instance);
    void clearHandles();

    static const QelString m_cmdFormat;

    TarnAdminConfig* m_config;
    void* m_context = nullptr;
    void* m_handle = nullptr;
};
