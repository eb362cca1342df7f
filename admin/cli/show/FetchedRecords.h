/// An array that the client library returned, released with the object.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

#include "admin/client-interface/olm_dsess_admin.h"
#include "catalogue/QelFailure.h"
#include "catalogue/qel_messages.h"

/// `kind`: how olm_dsess_admin_free is to release it.
template <class Record, std::int32_t kind>
class FetchedRecords {
  public:
    /// Calls `fetch` with the addresses of count and array. Throws QelFailure with the status that it returns, or with
    /// kStatusAnswerNotUnderstood when it counts records but gives no array. Then nothing of what it left is looked at.
    template <class Fetch>
    explicit FetchedRecords(Fetch fetch) {
        qel_require(fetch(&m_count, &m_records));
        qel_require(m_count > 0 && m_records == nullptr ? kStatusAnswerNotUnderstood : 0);
    }
    FetchedRecords(const FetchedRecords&) = delete;
    FetchedRecords& operator=(const FetchedRecords&) = delete;
    ~FetchedRecords() {
        if (m_records != nullptr) {
            const olm_dsess_admin_free_info_t release{kind, m_count, static_cast<void*>(&m_records)};
            olm_dsess_admin_free(&release);
        }
    }

    /// As the library counted them: 0 or less means none.
    std::int32_t count() const { return m_count; }
    std::span<const Record> records() const { return {m_records, static_cast<std::size_t>(std::max(m_count, 0))}; }

  private:
    std::int32_t m_count = 0;
    Record* m_records = nullptr;
};
