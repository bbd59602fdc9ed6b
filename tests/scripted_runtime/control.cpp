// The control interface, and the way every call takes: count, log, handler, scripted answer, model.
#include <dlfcn.h>

#include <optional>
#include <utility>

#include "model.h"
#include "scripted_runtime.h"

namespace {

struct ScriptedAnswer {
    SQLRETURN status;
    bool actsFirst;
};

struct Script {
    Model model;
    std::map<std::string, int, std::less<>> counts;
    std::map<std::pair<std::string, int>, ScriptedAnswer> answers;
    scripted_handler_function handler = nullptr;
    Answers hostile;
    void* forwarded = nullptr;  // the library that carries the calls out
    std::string lastPath;
    std::string joinedLog;
};

// Never destroyed: calls may still arrive while the process ends.
Script& TheScript() {
    static Script& script = *new Script;
    return script;
}

Result& NewestResult() {
    auto& results = TheScript().model.results;
    if (results.empty()) results.emplace_back();
    return results.back();
}

const ScriptedAnswer* FindAnswer(const Script& script, const std::string& name, int nth) {
    for (const int key : {nth, 0}) {
        const auto found = script.answers.find({name, key});
        if (found != script.answers.end()) return &found->second;
    }
    return nullptr;
}

// What the handler answers, if it does.
std::optional<SQLRETURN> RunHandler(const Script& script, const Call& call) {
    std::vector<long long> values;
    for (const Argument& argument : call.arguments) values.push_back(argument.value);
    int status = SQL_SUCCESS;
    const auto count = static_cast<int>(values.size());
    if (script.handler(call.name.data(), values.data(), count, &status) != 1) return std::nullopt;
    return static_cast<SQLRETURN>(status);
}

void LogCall(Model& model, const Call& call) {
    model.log.push_back(FormatCall(model, call));
    if (!call.name.starts_with("SQLExec")) return;
    const Handle* const statement = model.Find(call.Handle(0));
    if (statement && statement->isLive) LogParameters(model, call, *statement);
}

// Puts the new handle in place of the output pointer.
void LogNewHandle(Model& model, const Call& call, std::size_t line) {
    constexpr std::string_view kOutput = "ptr)";
    if (line >= model.log.size()) return;  // A handler emptied the log.
    std::string& text = model.log[line];
    text.replace(text.size() - kOutput.size(), kOutput.size(),
                 FormatHandle(model, *call.Pointer<SQLHANDLE>(2)) + ')');
}

}  // namespace

SQLRETURN Answer(const char* path, const Call& call,
                 const std::function<SQLRETURN(void* function)>& forward) {
    Script& script = TheScript();
    const std::string name(call.name);
    const int nth = ++script.counts[name];
    script.lastPath = path ? path : "";
    const std::size_t line = script.model.log.size();
    LogCall(script.model, call);

    const auto forwarded = [&] {
        return forward(dlsym(script.forwarded, (kIsDriver ? name : "RT_" + name).c_str()));
    };
    if (script.hostile) {
        const SQLRETURN status = script.hostile(script.model, call, forwarded);
        script.model.log[line] += " = " + std::to_string(status);
        return status;
    }
    if (script.handler) {
        if (const auto status = RunHandler(script, call)) return *status;
    }
    const ScriptedAnswer* const answer = FindAnswer(script, name, nth);
    if (answer && !answer->actsFirst) return answer->status;
    if (script.forwarded) return forwarded();
    const SQLRETURN status = Act(script.model, call);
    if (name == "SQLAllocHandle" && OdbcSucceeded(status)) LogNewHandle(script.model, call, line);
    return answer ? answer->status : status;
}

void scripted_reset() {
    TheScript() = Script{};
}

void scripted_forward(const char* library) {
    TheScript().forwarded = dlopen(library, RTLD_NOW | RTLD_LOCAL);
}

const char* scripted_log() {
    Script& script = TheScript();
    script.joinedLog.clear();
    for (const std::string& line : script.model.log) {
        if (!script.joinedLog.empty()) script.joinedLog += '\n';
        script.joinedLog += line;
    }
    return script.joinedLog.c_str();
}

void scripted_log_clear() {
    TheScript().model.log.clear();
}

int scripted_call_count(const char* function) {
    int count = 0;
    for (const auto& [name, calls] : TheScript().counts) {
        if (!function || name == function) count += calls;
    }
    return count;
}

const char* scripted_last_path() {
    return TheScript().lastPath.c_str();
}

void scripted_answer(const char* function, int nth, int status) {
    TheScript().answers[{function, nth}] = {static_cast<SQLRETURN>(status), false};
}

void scripted_answer_after(const char* function, int nth, int status) {
    TheScript().answers[{function, nth}] = {static_cast<SQLRETURN>(status), true};
}

void scripted_answers_clear() {
    TheScript().answers.clear();
}

void scripted_handler(scripted_handler_function handler) {
    TheScript().handler = handler;
}

void scripted_hostile(unsigned long long seed) {
    TheScript().hostile = HostileAnswers(seed);
}

void scripted_diag(const char* state, int native, const char* text, int reported_length,
                   int status) {
    TheScript().model.diagnostics.push_back(
        {state, native, text, reported_length, static_cast<SQLRETURN>(status)});
}

void scripted_result() {
    TheScript().model.results.emplace_back();
}

void scripted_row_count(long long count) {
    NewestResult().rowCount = static_cast<SQLLEN>(count);
}

void scripted_column(const char* name, int sqltype, int length, int precision, int scale,
                     int nullable) {
    const std::map<long long, long long> numbers{{SQL_COLUMN_TYPE, sqltype},
                                                 {SQL_COLUMN_LENGTH, length},
                                                 {SQL_COLUMN_PRECISION, precision},
                                                 {SQL_COLUMN_SCALE, scale},
                                                 {SQL_COLUMN_NULLABLE, nullable}};
    NewestResult().columns.push_back({name, numbers, {}});
}

void scripted_column_name_length(int reported_length) {
    NewestResult().columns.back().nameLength = reported_length;
}

void scripted_row() {
    NewestResult().rows.emplace_back();
}

void scripted_cell(int ctype, const void* bytes, int length) {
    auto& rows = NewestResult().rows;
    if (rows.empty()) rows.emplace_back();
    rows.back().push_back(
        {ctype, {static_cast<const char*>(bytes), static_cast<std::size_t>(length)}, {}});
}

void scripted_cell_indicator(long long indicator) {
    NewestResult().rows.back().back().indicator = static_cast<SQLLEN>(indicator);
}

int scripted_live_handles(int kind) {
    int count = 0;
    for (const auto& [key, handle] : TheScript().model.handles) {
        if (handle.isLive && (kind == 0 || handle.kind == kind)) ++count;
    }
    return count;
}

int scripted_errors() {
    return TheScript().model.errors;
}
