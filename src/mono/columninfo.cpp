#include <new>

#include "include/dbsource.h"

_db_column_info_::_db_column_info_(const char* name, int nameLength, int dataType, int columnSize,
                                   int precision, int scale, int isNullable) noexcept
    : DataType(dataType),
      ColumnSize(columnSize),
      Precision(precision),
      Scale(scale),
      IsNullable(isNullable) {
    ColumnName.Set(name, nameLength);
}

std::unique_ptr<_db_column_info_> _db_column_info_::Clone() const noexcept {
    std::unique_ptr<_db_column_info_> copy(new (std::nothrow) _db_column_info_(
        "", 0, DataType, ColumnSize, Precision, Scale, IsNullable));
    if (copy && copy->ColumnName.Set(ColumnName.Deref(), ColumnName.Length()) != VORDA_OK) {
        copy.reset();
    }
    return copy;
}
