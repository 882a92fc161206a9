#include "platform/Environment_p.h"

#include "platform/Log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace Platform {

namespace {

/** Reads one variable after the other; notes what had to be replaced. */
class Reader {
public:
    Reader(const Environment::Lookup &lookup, std::vector<std::string> &problems)
        : lookup_(lookup), problems_(problems) {}

    /** Null when not set or empty, which both mean the default. */
    const char *text(const char *name) const {
        const char *value = lookup_(name);
        return value != nullptr && *value != '\0' ? value : nullptr;
    }

    void refuse(const char *name, const char *value, const char *allowed, const std::string &used) {
        std::string shown;
        for (const char *c = value; *c != '\0' && shown.size() < 64; ++c) {
            const auto byte = static_cast<unsigned char>(*c);
            shown += byte >= 0x20 && byte < 0x7F ? std::string(1, *c) : LogMakeString("\\x%02X", byte);
        }
        problems_.push_back(LogMakeString("%s=\"%s\" is not usable (%s), using %s", name, shown.c_str(), allowed,
                                          used.empty() ? "nothing" : used.c_str()));
    }

    unsigned number(const char *name, unsigned first, unsigned last, unsigned standard) {
        const char *value = text(name);
        unsigned result = 0;
        if (value == nullptr) {
            return standard;
        }
        if (parse(value, first, last, result)) {
            return result;
        }
        refuse(name, value, LogMakeString("a number from %u to %u", first, last).c_str(), std::to_string(standard));
        return standard;
    }

    static bool parse(const std::string &value, unsigned first, unsigned last, unsigned &result) {
        if (value.empty() || value.size() > 9 ||
            !std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
            return false;
        }
        result = static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10));
        return result >= first && result <= last;
    }

private:
    const Environment::Lookup &lookup_;
    std::vector<std::string> &problems_;
};

bool printable(const std::string &text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) > 0x20 && static_cast<unsigned char>(c) != 0x7F;
    });
}

bool plain(const std::string &text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::strchr("._/+-", c) != nullptr;
    });
}

/** Without the slashes at its end; empty if it does not name a directory below the root. */
std::string absolutePath(std::string path) {
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    return !path.empty() && path[0] == '/' && path.size() <= 1024 ? path : std::string();
}

std::string standardUnitDirectory(Reader &reader) {
    const std::string standard = ::geteuid() == 0
                                     ? "/run/reflectorb"
                                     : LogMakeString("/tmp/reflectorb-%lu", static_cast<unsigned long>(::geteuid()));
    const char *value = reader.text("XDG_RUNTIME_DIR");
    if (value == nullptr) {
        return standard;
    }
    const std::string runtime = absolutePath(value);
    if (runtime.empty()) {
        reader.refuse("XDG_RUNTIME_DIR", value, "an absolute path", standard);
        return standard;
    }
    return runtime + "/reflectorb";
}

std::string unitDirectory(Reader &reader) {
    const char *value = reader.text("REFLECTORB_UNIT_DIR");
    const std::string path = value != nullptr ? absolutePath(value) : std::string();
    if (!path.empty()) {
        return path;
    }
    const std::string standard = standardUnitDirectory(reader);
    if (value != nullptr) {
        reader.refuse("REFLECTORB_UNIT_DIR", value, "an absolute path", standard);
    }
    return standard;
}

void auxiliarySlots(Reader &reader, std::array<bool, 256> &slots) {
    const char *value = reader.text("REFLECTORB_AXU_SLOTS");
    if (value == nullptr) {
        return;
    }
    std::array<bool, 256> found{};
    std::string rest = value;
    for (bool more = true; more;) {
        const std::size_t comma = rest.find(',');
        more = comma != std::string::npos;
        unsigned slot = 0;
        if (!Reader::parse(rest.substr(0, comma), 1, 255, slot)) {
            reader.refuse("REFLECTORB_AXU_SLOTS", value, "numbers from 1 to 255 with commas between", "none");
            return;
        }
        found[slot] = true;
        rest = more ? rest.substr(comma + 1) : "";
    }
    slots = found;
}

constexpr std::size_t kMaxActorName = 64;

/** The program's name, which may be anything, as far as it can be used. */
std::string programName() {
    std::string name = program_invocation_short_name;
    name.resize(std::min(name.size(), kMaxActorName));
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == '/' || !printable(std::string(1, c)); }, '_');
    return name.empty() ? "unnamed" : name;
}

std::string actorName(Reader &reader) {
    const std::string standard = programName();
    const char *value = reader.text("REFLECTORB_ACTOR");
    if (value == nullptr) {
        return standard;
    }
    const std::string name = value;
    if (name.size() > kMaxActorName || name.find('/') != std::string::npos || !printable(name)) {
        reader.refuse("REFLECTORB_ACTOR", value, "at most 64 printable characters without blank and /", standard);
        return standard;
    }
    return name;
}

std::string rootPrefix(Reader &reader) {
    const char *value = reader.text("REFLECTORB_ROOT");
    if (value == nullptr) {
        return "";
    }
    std::string path = value;
    if (path[0] != '/' || path.size() > 1024 || !plain(path)) {
        reader.refuse("REFLECTORB_ROOT", value, "an absolute path of letters, digits and ._/+-", "");
        return "";
    }
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

std::string logTarget(Reader &reader) {
    const char *value = reader.text("REFLECTORB_LOG");
    if (value == nullptr) {
        return "stderr";
    }
    const std::string target = value;
    if (target == "stderr" || target == "syslog" || target == "none" ||
        (target.compare(0, 5, "file:") == 0 && target.size() > 5)) {
        return target;
    }
    reader.refuse("REFLECTORB_LOG", value, "stderr, syslog, file:PATH or none", "stderr");
    return "stderr";
}

double timeScale(Reader &reader) {
    const char *value = reader.text("REFLECTORB_TIME_SCALE");
    if (value == nullptr) {
        return 1;
    }
    // Not strtod(), which would ask the application's locale for the decimal point.
    double scale = 0;
    const char *const end = value + std::strlen(value);
    const std::from_chars_result parsed = std::from_chars(value, end, scale, std::chars_format::fixed);
    if (parsed.ec != std::errc() || parsed.ptr != end || !(scale >= 0.001 && scale <= 10000)) {
        reader.refuse("REFLECTORB_TIME_SCALE", value, "a number from 0.001 to 10000", "1");
        return 1;
    }
    return scale;
}

} // namespace

Environment Environment::read(const Lookup &lookup) {
    Environment result;
    Reader reader(lookup, result.problems);
    result.unitDirectory = Platform::unitDirectory(reader);
    result.slot = reader.number("REFLECTORB_SLOT", 1, 255, 1);
    result.activeSlot = reader.number("REFLECTORB_ACTIVE_SLOT", 1, 255, 1);
    auxiliarySlots(reader, result.axuSlots);
    result.actor = actorName(reader);
    result.rootPrefix = Platform::rootPrefix(reader);
    result.log = logTarget(reader);
    result.logLevel = static_cast<int>(reader.number("REFLECTORB_LOG_LEVEL", 0, 6, 4));
    result.timeScale = Platform::timeScale(reader);
    return result;
}

const Environment &environment() {
    static const Environment *const values =
        new Environment(Environment::read([](const char *name) { return static_cast<const char *>(::getenv(name)); }));
    static std::atomic<bool> reported{false};
    if (!reported.load(std::memory_order_relaxed) && !reported.exchange(true)) {
        for (const std::string &problem : values->problems) {
            LogDispatch(3, problem, "Environment");
        }
        if (values->timeScale != 1) {
            LogDispatch(4, LogMakeString("time runs %g times faster", values->timeScale), "Environment");
        }
    }
    return *values;
}

} // namespace Platform
