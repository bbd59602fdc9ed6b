#include "model.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

template <typename... T>
std::string Printed(const char* format, T... values) {
    char out[64];
    std::snprintf(out, sizeof out, format, values...);
    return out;
}

std::string Quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20) {
            out += Printed("\\x%02x", static_cast<unsigned char>(c));
        } else {
            out += c;
        }
    }
    return out + '"';
}

std::string Hex(std::string_view bytes) {
    std::string out = "x'";
    for (const char c : bytes) out += Printed("%02x", static_cast<unsigned char>(c));
    return out + '\'';
}

template <typename T>
std::string Number(const char* data) {
    char digits[32];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, Load<T>(data));
    return {digits, end};
}

template <typename T>
void PutNumber(char* target, const Cell& cell) {
    const char* const from = cell.bytes.data();
    const T value = cell.cType == SQL_C_DOUBLE ? static_cast<T>(Load<double>(from))
                                               : static_cast<T>(Load<long long>(from));
    std::memcpy(target, &value, sizeof value);
}

std::string Date(const char* data) {
    const auto d = Load<SQL_DATE_STRUCT>(data);
    return Printed("%04d-%02d-%02d", d.year, d.month, d.day);
}

std::string Time(const char* data) {
    const auto t = Load<SQL_TIME_STRUCT>(data);
    return Printed("%02d:%02d:%02d", t.hour, t.minute, t.second);
}

std::string Timestamp(const char* data) {
    const auto t = Load<SQL_TIMESTAMP_STRUCT>(data);
    return Printed("%04d-%02d-%02d %02d:%02d:%02d.%09u", t.year, t.month, t.day, t.hour, t.minute,
                   t.second, static_cast<unsigned>(t.fraction));
}

constexpr FixedType kFixedTypes[] = {
    {SQL_C_BIT, 1, Number<unsigned char>, PutNumber<unsigned char>},
    {SQL_C_TINYINT, 1, Number<signed char>, PutNumber<unsigned char>},
    {SQL_C_SHORT, 2, Number<SQLSMALLINT>, PutNumber<SQLSMALLINT>},
    {SQL_C_LONG, 4, Number<SQLINTEGER>, PutNumber<SQLINTEGER>},
    {SQL_C_SBIGINT, 8, Number<long long>, PutNumber<long long>},
    {SQL_C_FLOAT, 4, Number<float>, PutNumber<float>},
    {SQL_C_DOUBLE, 8, Number<double>, PutNumber<double>},
    {SQL_C_DATE, sizeof(SQL_DATE_STRUCT), Date, nullptr},
    {SQL_C_TIME, sizeof(SQL_TIME_STRUCT), Time, nullptr},
    {SQL_C_TIMESTAMP, sizeof(SQL_TIMESTAMP_STRUCT), Timestamp, nullptr},
};

SQLLEN IndicatorOf(const Binding& binding, long long set) {
    return binding.indicators ? binding.indicators[set] : SQL_NTS;
}

std::string FormatValue(const Binding& binding, long long set) {
    const SQLLEN indicator = IndicatorOf(binding, set);
    if (indicator == SQL_NULL_DATA) return "NULL";
    if (!binding.data) return "null";
    if (const FixedType* const fixed = FindFixed(binding.cType)) {
        return fixed->format(binding.data + set * fixed->size);
    }
    const SQLLEN room = std::max<SQLLEN>(binding.bufferLength, 0);
    const char* const data = binding.data + set * room;
    const auto capacity = static_cast<std::size_t>(room);
    if (indicator != SQL_NTS && indicator < 0) return "?";
    const std::size_t length = indicator == SQL_NTS
                                   ? strnlen(data, capacity)
                                   : std::min(static_cast<std::size_t>(indicator), capacity);
    const bool isText = binding.cType == SQL_C_CHAR || binding.cType == SQL_C_WCHAR;
    return isText ? Quoted({data, length}) : Hex({data, length});
}

// "values=[...], lens=[...]" for all parameter sets.
std::string FormatValues(const Binding& binding, long long sets) {
    std::string values, lengths;
    for (long long set = 0; set < sets; ++set) {
        const char* const separator = set == 0 ? "" : ", ";
        values += separator + FormatValue(binding, set);
        lengths += separator;
        lengths += binding.indicators ? std::to_string(binding.indicators[set]) : "null";
    }
    return "values=[" + values + "], lens=[" + lengths + "]";
}

// Functions whose first text is input and followed by its length.
constexpr std::string_view kInputTexts[] = {"SQLPrepareW", "SQLExecDirectW", "SQLDriverConnectW"};

std::string FormatText(const char* text, long long length) {
    if (!text) return "null";
    if (length == SQL_NTS) return Quoted(text);
    return length < 0 ? "ptr" : Quoted({text, static_cast<std::size_t>(length)});
}

std::string FormatOpaque(const Model& model, long long value) {
    constexpr long long kLargestNumber = 0xffff;
    if (value != 0 && value <= kLargestNumber) return std::to_string(value);
    return FormatHandle(model, reinterpret_cast<SQLHANDLE>(value));
}

std::string FormatArguments(const Model& model, const Call& call) {
    std::string out;
    bool isInput = std::ranges::find(kInputTexts, call.name) != std::end(kInputTexts);
    for (std::size_t i = 0; i < call.arguments.size(); ++i) {
        const Argument& argument = call.arguments[i];
        if (i > 0) out += ", ";
        if (argument.kind == Argument::Kind::Number) {
            out += std::to_string(argument.value);
        } else if (argument.kind == Argument::Kind::Opaque) {
            out += FormatOpaque(model, argument.value);
        } else if (argument.kind == Argument::Kind::Text && std::exchange(isInput, false)) {
            out += FormatText(call.Pointer<char>(i), call.Number(i + 1));
        } else {
            out += argument.value ? "ptr" : "null";
        }
    }
    return out;
}

std::string FormatBindParameter(const Model& model, const Call& call) {
    static constexpr std::array kDirections = {"0", "in", "inout", "3", "out"};
    const auto direction = static_cast<std::size_t>(call.Number(2));
    const Handle* const statement = model.Find(call.Handle(0));
    const auto labelled = [&](const char* label, std::size_t i) {
        return label + std::to_string(call.Number(i)) + ", ";
    };
    return FormatHandle(model, call.Handle(0)) + ", " + std::to_string(call.Number(1)) + ", " +
           (direction < kDirections.size() ? kDirections[direction] : "?") + ", " +
           labelled("ctype=", 3) + labelled("sqltype=", 4) + labelled("size=", 5) +
           labelled("digits=", 6) + labelled("buflen=", 8) +
           FormatValues(BindingOf(call, 3, 7), statement ? statement->ParameterSets() : 1);
}

}  // namespace

const FixedType* FindFixed(int cType) {
    const auto* const found = std::ranges::find(kFixedTypes, cType, &FixedType::cType);
    return found == std::end(kFixedTypes) ? nullptr : found;
}

std::string FormatHandle(const Model& model, SQLHANDLE handle) {
    static constexpr std::array kNames = {"", "env", "dbc", "stmt"};
    if (!handle) return "null";
    const Handle* const found = model.Find(handle);
    if (!found) return "ptr";
    return kNames[static_cast<std::size_t>(found->kind)] + std::to_string(found->number) +
           (found->isLive ? "" : "(freed)");
}

std::string FormatCall(const Model& model, const Call& call) {
    const bool isSetter = call.name.starts_with("SQLSet") && call.name.ends_with("Attr");
    return std::string(call.name) + '(' +
           (call.name == "SQLBindParameter"
                ? FormatBindParameter(model, call)
                : FormatArguments(
                      model, {call.name, call.arguments.first(call.arguments.size() - isSetter)})) +
           ')';
}

void LogParameters(Model& model, const Call& call, const Handle& statement) {
    for (const auto& [number, binding] : statement.parameters) {
        model.log.push_back("  " + std::to_string(number) + ": " +
                            FormatValues(binding, statement.ParameterSets()));
        if (FindFixed(binding.cType)) continue;
        for (long long set = 0; set < statement.ParameterSets(); ++set) {
            if (IndicatorOf(binding, set) <= binding.bufferLength) continue;
            model.Error(call, "parameter " + std::to_string(number) + ", set " +
                                  std::to_string(set + 1) + ": the length is beyond the slot");
        }
    }
}
