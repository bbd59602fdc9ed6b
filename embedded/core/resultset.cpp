#include "core/resultset.h"

namespace embedded {

void StoredRows::append(const std::vector<Cell>& row) {
    for (const Cell& cell : row) {
        m_values.push_back({cell.kind, cell.integer, cell.real, m_bytes.size()});
        m_bytes += cell.bytes;
    }
    ++m_rows;
}

bool StoredRows::next() {
    if (m_current <= m_rows) ++m_current;
    return m_current <= m_rows;
}

Cell StoredRows::cell(int column) {
    const size_t index = (m_current - 1) * m_columns.size() + static_cast<size_t>(column);
    const Value& value = m_values[index];
    const size_t end = index + 1 < m_values.size() ? m_values[index + 1].begin : m_bytes.size();
    return {.kind = value.kind,
            .integer = value.integer,
            .real = value.real,
            .bytes = std::string_view(m_bytes).substr(value.begin, end - value.begin)};
}

}  // namespace embedded
