// Utility library of the family: logging records, precondition assertions
// and plain MD5 (from libmd).
#ifndef OMBREL_SHARED_H
#define OMBREL_SHARED_H

#include <boost/function.hpp>

#include <atomic>
#include <sstream>
#include <string>

// Plain MD5 after RFC 1321: MD5Init, MD5Update, MD5Final and MD5_CTX.
#include <md5.h>

namespace ombrel {

// How much a log record matters: debug records are written only for enabled
// categories, warnings always.
enum class LogSeverity { Debug, Warning };

// One log record, as a sink receives it.
struct LogRecord {
    LogSeverity severity;  // debug or warning
    std::string category;  // the subsystem that wrote it, such as "audio2"
    int level;             // the debug level given to debug(); 0 for warnings
    std::string text;      // the items streamed in, back to back
};

// Receives every record written; see setLogSink().
typedef boost::function<void (const LogRecord&)> LogSink;

// Replaces where records go (thread-safe); an empty sink restores the
// default, one line per record on stderr.
void setLogSink(const LogSink& sink);

// Debug records are dropped unless their category is enabled; warnings are
// always written.
void setDebugEnabled(const std::string& category, bool enabled);
// Whether debug records of `category` are written.
bool isDebugEnabled(const std::string& category);

// Collects the items streamed into it during one statement and writes them
// as one record when destroyed. Items are written back to back; with the
// quoting flag set, text items are preceded by a blank and wrapped in double
// quotes. A stream for a disabled category ignores its items cheaply.
class DebugStream {
public:
    // A record of `severity` in `category` at debug `level`; `quoteTexts`
    // sets the quoting flag. Usually made by debug() or warning().
    DebugStream(LogSeverity severity, const std::string& category, int level, bool quoteTexts);
    // Takes over the record of `other`, which then writes nothing.
    DebugStream(DebugStream&& other) noexcept;
    DebugStream(const DebugStream&) = delete;
    DebugStream& operator=(const DebugStream&) = delete;
    ~DebugStream();

    // Appends one item: a text, a truth value ("true" or "false"), a
    // character or a number in decimal.
    // @{
    DebugStream& operator<<(const char* text);
    DebugStream& operator<<(const std::string& text);
    DebugStream& operator<<(bool value);
    DebugStream& operator<<(char value);
    DebugStream& operator<<(int value);
    DebugStream& operator<<(unsigned value);
    DebugStream& operator<<(long value);
    DebugStream& operator<<(unsigned long value);
    DebugStream& operator<<(long long value);
    DebugStream& operator<<(unsigned long long value);
    DebugStream& operator<<(double value);
    // @}

    // Whether the record will be written (false for a disabled category).
    bool isActive() const { return m_active; }

private:
    template <typename T> DebugStream& appendNumber(T value);
    DebugStream& appendText(const char* text, std::size_t length);

    bool m_active;
    bool m_quoteTexts;
    LogSeverity m_severity;
    int m_level;
    std::string m_category;
    std::string m_text;
};

// A debug record of `category` at `level`, written at the end of the
// statement if the category is enabled: debug("audio2", 1, false) << "text".
// `flag` sets the quoting flag.
DebugStream debug(const std::string& category, int level, bool flag);

namespace detail {
extern std::atomic<bool> g_anyDebugEnabled;
}

// False when no debug category is enabled: a debug record would be dropped
// whatever its category. One relaxed load, for per-frame code.
inline bool anyDebugEnabled() { return detail::g_anyDebugEnabled.load(std::memory_order_relaxed); }
// A warning record of `category`, written at the end of the statement;
// `flag` sets the quoting flag.
DebugStream warning(const std::string& category, bool flag);

// Prints the failed expression, the function and the source path (from the
// project's top folder, without extension), then aborts.
[[noreturn]] void assertionFailed(const char* expression, const char* function, const char* file);

} // namespace ombrel

// Preconditions stay compiled in for every build type: they are part of the
// behaviour. Building with SONRA_NO_ASSERTIONS removes them.
#ifdef SONRA_NO_ASSERTIONS
#define SONRA_ASSERT(expression) ((void)0)
#else
#define SONRA_ASSERT(expression) \
    ((expression) ? (void)0 : ::ombrel::assertionFailed(#expression, __func__, __FILE__))
#endif

// A debug record whose category string and items are not even built, nor
// its arguments evaluated, while no debug category is enabled:
//     SONRA_DEBUG("audio2jbuf", 0, false) << "Jbuf " << clock() << " put frame ";
#define SONRA_DEBUG(category, level, flag) \
    if (!::ombrel::anyDebugEnabled()) {    \
    } else                                 \
        ::ombrel::debug(category, level, flag)

#endif
