#include "Unit.h"
#include "threads/HandlerState.h"
#include "view/Reporter.h"
#include "view/Signals.h"

#include <csignal>

namespace {

/** Of the slot or the port that the path names, or of all. */
bool concerns(const View::Path &path, const View::Picture::News &news) {
    const bool inSlot = path.empty() || path[0] == "slot" + std::to_string(news.slot);
    return inSlot && (path.size() < 2 || news.port.empty() || news.port == path[1]);
}

} // namespace

int watch(const Arguments &arguments) {
    if (arguments.size() > 1) {
        return failUsage("watch takes one PATH, or none for all");
    }
    View::blockSignals({SIGTERM, SIGINT});
    View::Path path;
    if (!arguments.empty() && (!View::parsePath(arguments[0], path) || path.size() > 2)) {
        return failUsage("'" + View::printable(arguments[0]) +
                         "' is no path: write /chassis/slot2/eth0, or slot2/eth0");
    }
    {
        const TreflectHandlerState state(true);
        TreflectObject root; // what the path names may still come, but not without a unit
        if (const int problem = Unit::find(View::Path(), root)) {
            return problem;
        }
    }
    View::Reporter reporter([&path](const View::Picture::News &news) { return concerns(path, news); });
    reporter.start("watching " + View::pathText(path) + "; ends with Ctrl-C");
    View::waitForSignal({SIGTERM, SIGINT});
    View::letSignalsEnd();
    reporter.stop();
    return done;
}
