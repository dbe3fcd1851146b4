#include "shared.h"

#include <boost/assert.hpp>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

namespace ombrel {

namespace detail {
std::atomic<bool> g_anyDebugEnabled{false};
}

namespace {

struct LogState {
    std::mutex mutex;
    LogSink sink;
    std::set<std::string> enabledCategories;
};

LogState& logState()
{
    static LogState state;
    return state;
}

const char* severityName(LogSeverity severity)
{
    return severity == LogSeverity::Warning ? "warning" : "debug";
}

void writeToStderr(const LogRecord& record)
{
    std::fprintf(stderr, "[%s] %s: %s\n", severityName(record.severity),
                 record.category.c_str(), record.text.c_str());
}

void emit(const LogRecord& record)
{
    LogState& state = logState();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.sink)
        state.sink(record);
    else
        writeToStderr(record);
}

// The build maps the source root away from __FILE__ (-fmacro-prefix-map), so
// "multimedia/audio2/.../sonrajbuf.cpp" arrives relative; only the extension goes.
std::string projectSourcePath(const char* file)
{
    std::string path(file);
    const std::string::size_type dot = path.rfind('.');
    const std::string::size_type slash = path.rfind('/');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash))
        path.erase(dot);
    return path;
}

} // namespace

void setLogSink(const LogSink& sink)
{
    LogState& state = logState();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.sink = sink;
}

void setDebugEnabled(const std::string& category, bool enabled)
{
    LogState& state = logState();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (enabled)
        state.enabledCategories.insert(category);
    else
        state.enabledCategories.erase(category);
    detail::g_anyDebugEnabled = !state.enabledCategories.empty();
}

bool isDebugEnabled(const std::string& category)
{
    LogState& state = logState();
    // Lets a disabled debug statement skip the lock on the hot path.
    if (!anyDebugEnabled())
        return false;
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.enabledCategories.count(category) != 0;
}

DebugStream::DebugStream(LogSeverity severity, const std::string& category, int level, bool quoteTexts)
    : m_active(severity == LogSeverity::Warning || isDebugEnabled(category)),
      m_quoteTexts(quoteTexts),
      m_severity(severity),
      m_level(level)
{
    if (m_active)
        m_category = category;
}

DebugStream::DebugStream(DebugStream&& other) noexcept
    : m_active(other.m_active),
      m_quoteTexts(other.m_quoteTexts),
      m_severity(other.m_severity),
      m_level(other.m_level),
      m_category(std::move(other.m_category)),
      m_text(std::move(other.m_text))
{
    other.m_active = false;
}

DebugStream::~DebugStream()
{
    if (!m_active)
        return;
    try {
        emit(LogRecord{m_severity, m_category, m_level, m_text});
    } catch (...) {
        // A record that cannot be written must not take the caller down.
    }
}

DebugStream& DebugStream::appendText(const char* text, std::size_t length)
{
    if (!m_active)
        return *this;
    if (m_quoteTexts) {
        m_text += " \"";
        m_text.append(text, length);
        m_text += '"';
    } else {
        m_text.append(text, length);
    }
    return *this;
}

template <typename T>
DebugStream& DebugStream::appendNumber(T value)
{
    if (m_active)
        m_text += std::to_string(value);
    return *this;
}

DebugStream& DebugStream::operator<<(const char* text)
{
    return text ? appendText(text, std::strlen(text)) : appendText("(null)", 6);
}
DebugStream& DebugStream::operator<<(const std::string& text) { return appendText(text.data(), text.size()); }
DebugStream& DebugStream::operator<<(bool value)
{
    if (m_active)
        m_text += value ? "true" : "false";
    return *this;
}
DebugStream& DebugStream::operator<<(char value)
{
    if (m_active)
        m_text += value;
    return *this;
}
DebugStream& DebugStream::operator<<(int value) { return appendNumber(value); }
DebugStream& DebugStream::operator<<(unsigned value) { return appendNumber(value); }
DebugStream& DebugStream::operator<<(long value) { return appendNumber(value); }
DebugStream& DebugStream::operator<<(unsigned long value) { return appendNumber(value); }
DebugStream& DebugStream::operator<<(long long value) { return appendNumber(value); }
DebugStream& DebugStream::operator<<(unsigned long long value) { return appendNumber(value); }
DebugStream& DebugStream::operator<<(double value)
{
    if (m_active) {
        std::ostringstream out;
        out << value;
        m_text += out.str();
    }
    return *this;
}

DebugStream debug(const std::string& category, int level, bool flag)
{
    return DebugStream(LogSeverity::Debug, category, level, flag);
}

DebugStream warning(const std::string& category, bool flag)
{
    return DebugStream(LogSeverity::Warning, category, 0, flag);
}

void assertionFailed(const char* expression, const char* function, const char* file)
{
    std::fprintf(stderr, "Assertion \"%s\" failed in function \"%s\" of \"%s\"\n",
                 expression, function, projectSourcePath(file).c_str());
    std::fflush(stderr);
    std::abort();
}

} // namespace ombrel

namespace boost {

void assertion_failed(const char* expression, const char* function, const char* file, long)
{
    ombrel::assertionFailed(expression, function, file);
}

void assertion_failed_msg(const char* expression, const char*, const char* function, const char* file, long)
{
    ombrel::assertionFailed(expression, function, file);
}

} // namespace boost
