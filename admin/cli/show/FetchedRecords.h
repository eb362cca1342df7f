/// An array that the client library returned, released with the object.
#pragma once

#include <cstdint>
#include <span>

#include "admin/client-interface/olm_dsess_admin.h"
#include "catalogue/qel_messages.h"

/// `kind`: how olm_dsess_admin_free is to release it.
template <class Record, std::int32_t kind>
class FetchedRecords {
  public:
    FetchedRecords() = default;
    FetchedRecords(const FetchedRecords&) = delete;
    FetchedRecords& operator=(const FetchedRecords&) = delete;
    ~FetchedRecords() {
        if (m_records != nullptr) {
            const olm_dsess_admin_free_info_t release{kind, m_count, static_cast<void*>(&m_records)};
            olm_dsess_admin_free(&release);
        }
    }

    /// Calls `fetch` with the addresses of count and array, and returns its status, or kStatusAnswerNotUnderstood when
    /// it counts records but gives no array. After a failure nothing of what it left there is looked at. Call once.
    template <class Fetch>
    [[nodiscard]] std::uint32_t fetch(Fetch fetch) {
        std::uint32_t status = fetch(&m_count, &m_records);
        if (status == 0 && m_count > 0 && m_records == nullptr) {
            status = kStatusAnswerNotUnderstood;
        }
        if (status != 0) {
            m_count = 0;
            m_records = nullptr;
        }
        return status;
    }

    /// As the library counted them: 0 or less means none.
    std::int32_t count() const { return m_count; }
    std::span<const Record> records() const {
        return m_count > 0 ? std::span<const Record>(m_records, static_cast<std::size_t>(m_count))
                           : std::span<const Record>();
    }

  private:
    std::int32_t m_count = 0;
    Record* m_records = nullptr;
};
