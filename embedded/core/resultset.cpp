#include "core/resultset.h"

namespace embedded {

void StoredRows::append(const std::vector<Cell>& row) {
    std::vector<Value> values;
    values.reserve(row.size());
    for (const Cell& cell : row) values.push_back({cell, std::string(cell.bytes)});
    m_rows.push_back(std::move(values));
}

bool StoredRows::next() {
    if (m_current <= m_rows.size()) ++m_current;
    return m_current <= m_rows.size();
}

Cell StoredRows::cell(int column) {
    const Value& value = m_rows[m_current - 1][static_cast<size_t>(column)];
    Cell cell = value.cell;
    cell.bytes = value.bytes;
    return cell;
}

}  // namespace embedded
