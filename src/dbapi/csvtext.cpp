// Rows as lines of CSV. For each cell of a long result, Python code would cost more than all else.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string>
#include <string_view>

#include "dbapi/failure.h"
#include "dbapi/objects.h"
#include "dbapi/values.h"
#include "include/pydatetime.h"

namespace {

class Lines {
  public:
    // A field that has a byte of the delimiter is quoted, even where that is part of another
    // character.
    Lines(PyObject* textOf, std::string_view delimiter) : m_textOf(textOf), m_delimiter(delimiter) {
        for (const char c : std::string_view("\"\r\n")) m_special[Byte(c)] = true;
        for (const char c : delimiter) m_special[Byte(c)] = true;
    }

    void Append(PyObject* given) {
        const PyRef row = Checked(PySequence_Fast(given, "a row is a sequence"));
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(row.Get()); ++i) {
            if (i > 0) m_text += m_delimiter;
            // A list may change while a text is made.
            const PyRef cell = PyRef::Borrow(PySequence_Fast_GET_ITEM(row.Get(), i));
            if (cell.Get() != Py_None) AppendCell(cell.Get());
        }
        m_text += '\n';
    }

    PyRef Text() const {
        return Checked(
            PyUnicode_DecodeUTF8(m_text.data(), static_cast<Py_ssize_t>(m_text.size()), nullptr));
    }

  private:
    static unsigned char Byte(char c) { return static_cast<unsigned char>(c); }

    void AppendCell(PyObject* cell) {
        if (PyUnicode_CheckExact(cell)) {
            AppendText(cell);
        } else if (PyLong_CheckExact(cell)) {
            int overflow = 0;
            const long long number = PyLong_AsLongLongAndOverflow(cell, &overflow);
            if (overflow) return AppendMade(cell);
            char digits[24];
            const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
            AppendField({digits, static_cast<size_t>(end - digits)}, false);
        } else if (PyFloat_CheckExact(cell)) {
            AppendNumber(PyFloat_AS_DOUBLE(cell));
        } else if (PyBool_Check(cell)) {
            AppendField(cell == Py_True ? "true" : "false", false);
        } else if (PyDate_CheckExact(cell)) {
            char text[32];
            const int size =
                std::snprintf(text, sizeof text, "%04d-%02d-%02d", PyDateTime_GET_YEAR(cell),
                              PyDateTime_GET_MONTH(cell), PyDateTime_GET_DAY(cell));
            AppendField({text, static_cast<size_t>(size)}, false);
        } else if (reinterpret_cast<PyObject*>(Py_TYPE(cell)) == m_decimal) {
            AppendDecimal(cell);
        } else {
            AppendMade(cell);
        }
    }

    // As Python writes it: the fewest digits that make the same number, with an exponent where the
    // point is far away.
    void AppendNumber(double number) {
        const double size = std::fabs(number);
        if (!std::isfinite(number))
            return AppendField(std::isnan(number) ? "nan" : number > 0 ? "inf" : "-inf", false);
        const bool isFixed = size == 0 || (size >= 1e-4 && size < 1e16);
        char digits[40];
        char* end =
            std::to_chars(digits, digits + sizeof digits, number,
                          isFixed ? std::chars_format::fixed : std::chars_format::scientific)
                .ptr;
        if (isFixed && std::find(digits, end, '.') == end) {
            *end++ = '.';
            *end++ = '0';
        }
        AppendField({digits, static_cast<size_t>(end - digits)}, false);
    }

    // What has no exponent needs no function to take it away.
    void AppendDecimal(PyObject* cell) {
        const PyRef text = Checked(PyObject_Str(cell));
        const Py_ssize_t size = PyUnicode_GET_LENGTH(text.Get());
        const Py_ssize_t found = PyUnicode_FindChar(text.Get(), 'E', 0, size, 1);
        if (found >= 0) return AppendMade(cell);
        if (found == -2) throw PythonError();
        AppendText(text.Get());
    }

    void AppendMade(PyObject* cell) {
        const PyRef text = Checked(CallPython(m_textOf, cell));
        if (!PyUnicode_Check(text.Get())) {
            PyErr_SetString(PyExc_TypeError, "the text of a value is no str");
            throw PythonError();
        }
        AppendText(text.Get());
    }

    void AppendText(PyObject* text) {
        Py_ssize_t size = 0;
        const char* const utf8 = PyUnicode_AsUTF8AndSize(text, &size);
        if (!utf8) throw PythonError();
        const Py_ssize_t last = PyUnicode_GET_LENGTH(text) - 1;
        // Readers take blanks at either end away.
        const bool isFrayed = last < 0 || Py_UNICODE_ISSPACE(PyUnicode_READ_CHAR(text, 0)) ||
                              Py_UNICODE_ISSPACE(PyUnicode_READ_CHAR(text, last));
        AppendField({utf8, static_cast<size_t>(size)}, isFrayed);
    }

    void AppendField(std::string_view text, bool isQuoted) {
        for (const char c : text) isQuoted |= m_special[Byte(c)];
        if (!isQuoted) {
            m_text += text;
            return;
        }
        m_text += '"';
        for (const char c : text) m_text.append(c == '"' ? 2 : 1, c);
        m_text += '"';
    }

    PyObject* const m_decimal = TypeOf(SQL_DECIMAL, Meaning::Plain);
    PyObject* const m_textOf;
    const std::string_view m_delimiter;
    std::array<bool, 256> m_special{};
    std::string m_text;
};

}  // namespace

PyObject* CsvLines(PyObject*, PyObject* args) noexcept {
    return AtBoundary<PyObject*>(nullptr, [&]() -> PyObject* {
        PyObject *given, *textOf;
        const char* delimiter;
        Py_ssize_t size;
        if (!PyArg_ParseTuple(args, "Os#O", &given, &delimiter, &size, &textOf)) return nullptr;
        const PyRef rows = Checked(PySequence_Fast(given, "rows are a sequence"));
        Lines lines(textOf, {delimiter, static_cast<size_t>(size)});
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(rows.Get()); ++i) {
            const PyRef row = PyRef::Borrow(PySequence_Fast_GET_ITEM(rows.Get(), i));
            lines.Append(row.Get());
        }
        return lines.Text().Release();
    });
}
