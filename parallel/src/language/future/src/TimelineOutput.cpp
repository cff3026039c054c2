// The timeline's two pictures: trace-event JSON and SVG. Both lay the entries
// out the same way (TimelineLayout): one lane per worker, in natural order of
// the names, then a "failed early" lane for tasks that failed without running
// (a continuation whose predecessor failed) and a "not started" lane for the
// others that never ran (cancelled, or still waiting).

#include <parallel/language/future/TimelineRecorder.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <map>
#include <numeric>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>

namespace parallel::language::future {

namespace {

using Outcome = TimelineEntry::Outcome;

constexpr const char* kFailedEarlyLane = "failed early";
constexpr const char* kNotStartedLane = "not started";

const char* outcomeName(Outcome outcome) {
    switch (outcome) {
    case Outcome::Completed:
        return "completed";
    case Outcome::Failed:
        return "failed";
    case Outcome::Cancelled:
        return "cancelled";
    case Outcome::Unfinished:
        break;
    }
    return "unfinished";
}

bool seen(double time) {
    return time >= 0.0;
}

// "worker 2" before "worker 10": digit runs compare as numbers.
bool naturalLess(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (std::isdigit(static_cast<unsigned char>(a[i])) &&
            std::isdigit(static_cast<unsigned char>(b[j]))) {
            const std::size_t startA = i;
            const std::size_t startB = j;
            while (i < a.size() && std::isdigit(static_cast<unsigned char>(a[i]))) {
                ++i;
            }
            while (j < b.size() && std::isdigit(static_cast<unsigned char>(b[j]))) {
                ++j;
            }
            const std::string_view numberA = a.substr(startA, i - startA);
            const std::string_view numberB = b.substr(startB, j - startB);
            if (numberA.size() != numberB.size()) {
                return numberA.size() < numberB.size();
            }
            if (numberA != numberB) {
                return numberA < numberB;
            }
        } else {
            if (a[i] != b[j]) {
                return a[i] < b[j];
            }
            ++i;
            ++j;
        }
    }
    return a.size() - i < b.size() - j;
}

// Where each entry goes and over which times, shared by both writers.
struct TimelineLayout {
    struct Item {
        const TimelineEntry* entry;
        std::size_t lane;
        double waitBegin; // made or queued; negative when neither was seen
        double runBegin;  // negative when it never started
        double end;       // of the run, or of the wait for one never started
        double waitEnd;   // the start, or `end` for one never started

        bool waited() const { return seen(waitBegin) && waitEnd > waitBegin; }
        bool ran() const { return seen(runBegin); }
        // Finished without running, as a continuation whose predecessor failed.
        bool failedEarly() const { return !ran() && entry->outcome == Outcome::Failed; }
    };

    std::vector<std::string> lanes;
    std::vector<Item> items;
    double horizon = 0.0; // the latest time of any entry

    explicit TimelineLayout(const std::vector<TimelineEntry>& entries) {
        for (const TimelineEntry& entry : entries) {
            for (const double time : {entry.createdUs, entry.queuedUs, entry.startedUs,
                                      entry.finishedUs, entry.cancelledUs}) {
                horizon = std::max(horizon, time);
            }
        }
        std::map<std::string, std::size_t, bool (*)(std::string_view, std::string_view)>
            laneOfWorker(naturalLess);
        bool anyFailedEarly = false;
        bool anyNotStarted = false;
        for (const TimelineEntry& entry : entries) {
            if (seen(entry.startedUs)) {
                laneOfWorker.emplace(entry.worker, 0);
            } else if (entry.outcome == Outcome::Failed) {
                anyFailedEarly = true;
            } else {
                anyNotStarted = true;
            }
        }
        for (auto& [worker, lane] : laneOfWorker) {
            lane = lanes.size();
            lanes.push_back(worker);
        }
        // The lanes of tasks that never ran come last.
        const auto addLane = [this](bool wanted, const char* name) {
            if (wanted) {
                lanes.emplace_back(name);
            }
            return lanes.size() - 1;
        };
        const std::size_t failedEarlyLane = addLane(anyFailedEarly, kFailedEarlyLane);
        const std::size_t notStartedLane = addLane(anyNotStarted, kNotStartedLane);
        for (const TimelineEntry& entry : entries) {
            const bool started = seen(entry.startedUs);
            const std::size_t unrunLane =
                entry.outcome == Outcome::Failed ? failedEarlyLane : notStartedLane;
            double end = horizon;
            if (seen(entry.finishedUs)) {
                end = entry.finishedUs;
            } else if (seen(entry.cancelledUs)) {
                end = entry.cancelledUs;
            }
            end = std::max(end, entry.startedUs);
            items.push_back({&entry, started ? laneOfWorker.at(entry.worker) : unrunLane,
                             seen(entry.queuedUs) ? entry.queuedUs : entry.createdUs,
                             entry.startedUs, end, started ? entry.startedUs : end});
        }
    }
};

// An entry's times in the order they happen, each with its key in the trace
// and its word for people.
struct NamedTime {
    const char* key;
    const char* word;
    double time;
};
std::array<NamedTime, 5> timesOf(const TimelineEntry& entry) {
    return {{{"created_us", "made", entry.createdUs},
             {"queued_us", "queued", entry.queuedUs},
             {"started_us", "started", entry.startedUs},
             {"finished_us", "finished", entry.finishedUs},
             {"cancelled_us", "cancelled", entry.cancelledUs}}};
}

// "#12 solve": the future's ID and, with `withFunction`, the function's name.
std::string labelOf(const TimelineEntry& entry, bool withFunction = true) {
    std::string label = entry.futureId >= 0 ? "#" + std::to_string(entry.futureId) : "task";
    if (withFunction && !entry.function.empty()) {
        label += " " + entry.function;
    }
    return label;
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

std::string jsonString(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        switch (c) {
        case '"':
            quoted += "\\\"";
            break;
        case '\\':
            quoted += "\\\\";
            break;
        case '\n':
            quoted += "\\n";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                quoted += escaped;
            } else {
                quoted += c;
            }
        }
    }
    return quoted + "\"";
}

std::string xmlText(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

// Trace events of one process; a lane is the thread with id lane + 1.
class TraceEvents {
public:
    void add(const std::string& event) {
        text_ += first_ ? "\n  " : ",\n  ";
        text_ += event;
        first_ = false;
    }
    std::string finish() && {
        return "{\"displayTimeUnit\": \"ms\", \"traceEvents\": [" + text_ + "\n]}\n";
    }

private:
    std::string text_;
    bool first_ = true;
};

std::string common(const char* phase, std::size_t lane, double time) {
    return "\"ph\": \"" + std::string(phase) +
           "\", \"pid\": 1, \"tid\": " + std::to_string(lane + 1) + ", \"ts\": " + number(time);
}

std::string traceArguments(const TimelineEntry& entry) {
    std::string arguments = "{\"future\": " + std::to_string(entry.futureId) +
                            ", \"kind\": " + jsonString(entry.futureKind) +
                            ", \"function\": " + jsonString(entry.function) + ", \"outcome\": \"" +
                            outcomeName(entry.outcome) + "\"";
    for (const NamedTime& named : timesOf(entry)) {
        if (seen(named.time)) {
            arguments += ", \"" + std::string(named.key) + "\": " + number(named.time);
        }
    }
    return arguments + "}";
}

} // namespace

std::string toTraceEventJson(const std::vector<TimelineEntry>& entries) {
    const TimelineLayout layout(entries);
    TraceEvents events;
    events.add(R"({"name": "process_name", "ph": "M", "pid": 1, "args": {"name": "futures"}})");
    for (std::size_t lane = 0; lane < layout.lanes.size(); ++lane) {
        events.add(R"({"name": "thread_name", )" + common("M", lane, 0.0) +
                   ", \"args\": {\"name\": " + jsonString(layout.lanes[lane]) + "}}");
        events.add(R"({"name": "thread_sort_index", )" + common("M", lane, 0.0) +
                   ", \"args\": {\"sort_index\": " + std::to_string(lane) + "}}");
    }
    for (std::size_t i = 0; i < layout.items.size(); ++i) {
        const TimelineLayout::Item& item = layout.items[i];
        const TimelineEntry& entry = *item.entry;
        const std::string name = "\"name\": " + jsonString(labelOf(entry)) + ", ";
        if (item.waited()) {
            const std::string async = ", \"cat\": \"wait\", \"id\": " + std::to_string(i + 1);
            events.add("{" + name + common("b", item.lane, item.waitBegin) + async + "}");
            events.add("{" + name + common("e", item.lane, item.waitEnd) + async + "}");
        }
        if (seen(item.runBegin)) {
            events.add("{" + name + "\"cat\": \"run\", " + common("X", item.lane, item.runBegin) +
                       ", \"dur\": " + number(item.end - item.runBegin) +
                       ", \"args\": " + traceArguments(entry) + "}");
        }
        if (seen(entry.cancelledUs)) {
            events.add("{\"name\": " + jsonString("cancel " + labelOf(entry)) +
                       ", \"cat\": \"cancel\", \"s\": \"t\", " +
                       common("i", item.lane, entry.cancelledUs) + "}");
        }
    }
    return std::move(events).finish();
}

namespace {

// Geometry of the SVG picture, in pixels.
constexpr double kLabelWidth = 120;
constexpr double kPlotWidth = 900;
constexpr double kRightMargin = 80; // room for the labels of the last runs
constexpr double kTop = 40;
constexpr double kLaneHeight = 28;
constexpr double kBarHeight = 18;
constexpr double kAxisHeight = 34;
constexpr double kLegendHeight = 30;
constexpr double kCharWidth = 6.5; // of the 11px labels, roughly
constexpr double kUsPerMs = 1000.0;
constexpr double kMaxTicks = 10.0;
constexpr double kTextDrop = 4; // from a row's middle to its text's baseline
constexpr double kTitleBaseline = 22;
constexpr double kLaneLabelGap = 8; // between a lane's name and the plot
constexpr double kTickLength = 4;   // below the axis
constexpr double kTickLabelDrop = 16;
constexpr double kBarLabelInset = 4; // of a label inside its bar, from the left
constexpr double kBarLabelRoom = 6;  // beyond the label's own width
constexpr double kDotRadius = 5;     // of a task that finished without running
constexpr double kCrossHalfSize = 4;
constexpr const char* kWaitLineStyle =
    "class=\"wait\" stroke=\"#777\" stroke-width=\"2\" stroke-opacity=\"0.5\"";
constexpr double kPatchHeight = 14; // of the white patch under a label beside its mark
constexpr double kPatchPadding = 2; // of that patch, left and right of the text

// The legend: a row of swatches with their words, then the wait line and the
// cancel cross, below the axis.
constexpr double kLegendDrop = 14; // from the bottom of the axis to its baseline
constexpr double kSwatchWidth = 14;
constexpr double kSwatchHeight = 12;
constexpr double kSwatchRise = 10;    // of a swatch's top above the baseline
constexpr double kSymbolRise = 4;     // of the wait line and the cross above it
constexpr double kSwatchTextGap = 18; // from a swatch's left to its word
constexpr double kOutcomeStep = 100;  // from one outcome to the next
constexpr double kWaitLineLength = 20;
constexpr double kWaitTextGap = 24;  // from the wait line's left to its word
constexpr double kWaitStep = 90;     // from the wait line to the cancel's slot
constexpr double kCrossOffset = 5;   // from the cancel's slot to the cross's centre
constexpr double kCrossTextGap = 14; // from the cancel's or the dot's slot to its word
constexpr double kCancelStep = 70;   // from the cancel's slot to the dot's

const char* fillOf(Outcome outcome) {
    switch (outcome) {
    case Outcome::Completed:
        return "#4c9a5f";
    case Outcome::Failed:
        return "#d0453c";
    case Outcome::Cancelled:
        return "#9a9a9a";
    case Outcome::Unfinished:
        break;
    }
    return "#8fb8de";
}

// A tick step of 1, 2 or 5 times a power of ten giving at most kMaxTicks.
double tickStep(double span) {
    const double rough = std::max(span, 1e-9) / kMaxTicks;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    for (const double factor : {1.0, 2.0, 5.0, 10.0}) {
        if (factor * power >= rough) {
            return factor * power;
        }
    }
    return 10.0 * power;
}

class SvgPicture {
public:
    SvgPicture(double width, double height) {
        out_ << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\""
             << height << "\" viewBox=\"0 0 " << width << ' ' << height
             << "\" font-family=\"sans-serif\" font-size=\"11\">\n"
             << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    }
    std::ostream& out() { return out_; }
    void text(double x, double y, std::string_view content, const char* anchor = "start",
              const char* extra = "") {
        out_ << "<text x=\"" << x << "\" y=\"" << y << "\" text-anchor=\"" << anchor << "\" "
             << extra << ">" << xmlText(content) << "</text>\n";
    }
    void line(double x1, double y1, double x2, double y2, const char* style) {
        out_ << "<line x1=\"" << x1 << "\" y1=\"" << y1 << "\" x2=\"" << x2 << "\" y2=\"" << y2
             << "\" " << style << "/>\n";
    }
    void cross(double x, double y) {
        const char* style = "stroke=\"#222\" stroke-width=\"2\"";
        const double d = kCrossHalfSize;
        line(x - d, y - d, x + d, y + d, style);
        line(x - d, y + d, x + d, y - d, style);
    }
    // The mark of a task that finished without running.
    void dot(double x, double y, Outcome outcome) {
        out_ << "<circle cx=\"" << x << "\" cy=\"" << y << "\" r=\"" << kDotRadius << "\" fill=\""
             << fillOf(outcome) << "\" stroke=\"#333\" stroke-width=\"0.5\"/>\n";
    }
    std::string finish() && {
        out_ << "</svg>\n";
        return out_.str();
    }

private:
    std::ostringstream out_;
};

std::string tooltipOf(const TimelineEntry& entry) {
    std::string tip = labelOf(entry);
    if (!entry.futureKind.empty()) {
        tip += " (" + entry.futureKind + ")";
    }
    tip += ": " + std::string(outcomeName(entry.outcome));
    for (const NamedTime& named : timesOf(entry)) {
        if (seen(named.time)) {
            tip += "\n" + std::string(named.word) + " at " + number(named.time / kUsPerMs) + " ms";
        }
    }
    if (!entry.worker.empty()) {
        tip += "\non " + entry.worker;
    }
    return tip;
}

double widthOfText(const std::string& text) {
    return kCharWidth * static_cast<double>(text.size()) + kBarLabelRoom;
}

// Where a label goes: inside its bar (white on the bar), or beside its
// mark (dark on a white patch that hides the lane's wait lines).
struct LabelPlace {
    std::string text;
    double left; // of the text
    bool inside;
    double right; // of what the label takes of the lane: its bar, or its patch
};

// The whole label where it fits, else the future's number alone: inside
// the bar where it is wide enough, else right of the mark, else left of it,
// within the free stretch of the lane [freeLeft, freeRight].
std::optional<LabelPlace> placeLabel(const TimelineEntry& entry, double left, double right,
                                     bool isBar, double freeLeft, double freeRight) {
    for (const std::string& label : {labelOf(entry), labelOf(entry, false)}) {
        const double textWidth = widthOfText(label);
        if (isBar && right - left > textWidth) {
            return LabelPlace{label, left + kBarLabelInset, true, right};
        }
        if (freeRight - right > textWidth) {
            return LabelPlace{label, right + kBarLabelInset, false, right + textWidth};
        }
        if (left - freeLeft > textWidth) {
            return LabelPlace{label, left - textWidth, false, right};
        }
    }
    return std::nullopt;
}

void drawLabel(SvgPicture& svg, const LabelPlace& label, double middle) {
    if (label.inside) {
        svg.text(label.left, middle + kTextDrop, label.text, "start", "fill=\"white\"");
        return;
    }
    svg.out() << "<rect x=\"" << label.left - kPatchPadding << "\" y=\""
              << middle - kPatchHeight / 2 << "\" width=\""
              << widthOfText(label.text) - kBarLabelRoom + 2 * kPatchPadding << "\" height=\""
              << kPatchHeight << "\" fill=\"white\" fill-opacity=\"0.9\"/>\n";
    svg.text(label.left, middle + kTextDrop, label.text, "start", "fill=\"#222\"");
}

void drawLegend(SvgPicture& svg, double y) {
    double x = kLabelWidth;
    for (const Outcome outcome :
         {Outcome::Completed, Outcome::Failed, Outcome::Cancelled, Outcome::Unfinished}) {
        svg.out() << "<rect x=\"" << x << "\" y=\"" << y - kSwatchRise << "\" width=\""
                  << kSwatchWidth << "\" height=\"" << kSwatchHeight << "\" fill=\""
                  << fillOf(outcome) << "\"/>\n";
        svg.text(x + kSwatchTextGap, y, outcomeName(outcome));
        x += kOutcomeStep;
    }
    svg.line(x, y - kSymbolRise, x + kWaitLineLength, y - kSymbolRise,
             "stroke=\"#777\" stroke-width=\"2\"");
    svg.text(x + kWaitTextGap, y, "waiting");
    x += kWaitStep;
    svg.cross(x + kCrossOffset, y - kSymbolRise);
    svg.text(x + kCrossTextGap, y, "cancel");
    x += kCancelStep;
    svg.dot(x + kDotRadius, y - kSymbolRise, Outcome::Failed);
    svg.text(x + kCrossTextGap, y, "failed before running");
}

} // namespace

std::string toSvg(const std::vector<TimelineEntry>& entries) {
    const TimelineLayout layout(entries);
    const double span = std::max(layout.horizon, 1.0);
    const double plotHeight = kLaneHeight * static_cast<double>(layout.lanes.size());
    const double width = kLabelWidth + kPlotWidth + kRightMargin;
    const double height = kTop + plotHeight + kAxisHeight + kLegendHeight;
    const auto xOf = [&](double us) { return kLabelWidth + kPlotWidth * us / span; };
    SvgPicture svg(width, height);

    std::set<long long> futures;
    for (const TimelineEntry& entry : entries) {
        if (entry.futureId >= 0) {
            futures.insert(entry.futureId);
        }
    }
    svg.text(kLabelWidth, kTitleBaseline,
             std::to_string(entries.size()) + " tasks of " + std::to_string(futures.size()) +
                 " futures, over " + number(layout.horizon / kUsPerMs) + " ms",
             "start", "font-size=\"13\"");

    for (std::size_t lane = 0; lane < layout.lanes.size(); ++lane) {
        const double top = kTop + kLaneHeight * static_cast<double>(lane);
        svg.out() << "<rect x=\"" << kLabelWidth << "\" y=\"" << top << "\" width=\"" << kPlotWidth
                  << "\" height=\"" << kLaneHeight << "\" fill=\""
                  << (lane % 2 == 0 ? "#f4f4f4" : "#fbfbfb") << "\"/>\n";
        svg.text(kLabelWidth - kLaneLabelGap, top + kLaneHeight / 2 + kTextDrop, layout.lanes[lane],
                 "end");
    }

    const double axisY = kTop + plotHeight;
    const double stepMs = tickStep(span / kUsPerMs);
    for (double ms = 0.0; ms * kUsPerMs <= span + 1e-9; ms += stepMs) {
        const double x = xOf(ms * kUsPerMs);
        svg.line(x, kTop, x, axisY + kTickLength, "stroke=\"#ddd\"");
        char tick[32];
        std::snprintf(tick, sizeof tick, "%g ms", ms);
        svg.text(x, axisY + kTickLabelDrop, tick, "middle");
    }
    svg.line(kLabelWidth, axisY, kLabelWidth + kPlotWidth, axisY, "stroke=\"#555\"");

    const auto middleOf = [](const TimelineLayout::Item& item) {
        return kTop + kLaneHeight * (static_cast<double>(item.lane) + 0.5);
    };
    // The wait lines first, so that the bars and their labels cover them.
    for (const TimelineLayout::Item& item : layout.items) {
        if (item.waited()) {
            svg.line(xOf(item.waitBegin), middleOf(item), xOf(item.waitEnd), middleOf(item),
                     kWaitLineStyle);
        }
    }

    // Where each item's mark (bar, dot or cross of a task cancelled before it
    // ran) spans; none when left == right.
    const std::size_t count = layout.items.size();
    std::vector<std::pair<double, double>> marks(count, {0.0, 0.0});
    for (std::size_t i = 0; i < count; ++i) {
        const TimelineLayout::Item& item = layout.items[i];
        if (item.ran()) {
            const double x = xOf(item.runBegin);
            marks[i] = {x, x + std::max(xOf(item.end) - x, 1.0)};
        } else if (item.failedEarly() && seen(item.entry->finishedUs)) {
            const double x = xOf(item.entry->finishedUs);
            marks[i] = {x - kDotRadius, x + kDotRadius};
        } else if (seen(item.entry->cancelledUs)) {
            const double x = xOf(item.entry->cancelledUs);
            marks[i] = {x - kCrossHalfSize, x + kCrossHalfSize};
        }
    }
    // The labels, placed lane by lane from left to right, each between what
    // is drawn before it (marks and labels) and the next mark.
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return std::pair(layout.items[a].lane, marks[a].first) <
               std::pair(layout.items[b].lane, marks[b].first);
    });
    std::vector<std::optional<LabelPlace>> labels(count);
    for (std::size_t n = 0; n < count; ++n) {
        const std::size_t i = order[n];
        const auto [left, right] = marks[i];
        if (right <= left) {
            continue;
        }
        const std::size_t lane = layout.items[i].lane;
        double freeLeft = kLabelWidth;
        if (n > 0 && layout.items[order[n - 1]].lane == lane) {
            freeLeft = std::max(freeLeft, marks[order[n - 1]].second);
            if (labels[order[n - 1]]) {
                freeLeft = std::max(freeLeft, labels[order[n - 1]]->right);
            }
        }
        double freeRight = width - kBarLabelInset;
        if (n + 1 < count && layout.items[order[n + 1]].lane == lane) {
            freeRight = std::min(freeRight, marks[order[n + 1]].first);
        }
        labels[i] = placeLabel(*layout.items[i].entry, left, right, layout.items[i].ran(), freeLeft,
                               freeRight);
    }

    for (std::size_t i = 0; i < layout.items.size(); ++i) {
        const TimelineLayout::Item& item = layout.items[i];
        const TimelineEntry& entry = *item.entry;
        const double middle = middleOf(item);
        svg.out() << "<g>\n<title>" << xmlText(tooltipOf(entry)) << "</title>\n";
        const auto [left, right] = marks[i];
        if (item.ran()) {
            svg.out() << "<rect x=\"" << left << "\" y=\"" << middle - kBarHeight / 2
                      << "\" width=\"" << right - left << "\" height=\"" << kBarHeight
                      << "\" rx=\"2\" fill=\"" << fillOf(entry.outcome)
                      << "\" stroke=\"#333\" stroke-width=\"0.5\"/>\n";
        } else if (item.failedEarly()) {
            svg.dot((left + right) / 2, middle, entry.outcome);
        }
        if (const auto& label = labels[i]) {
            drawLabel(svg, *label, middle);
        }
        if (seen(entry.cancelledUs)) {
            svg.cross(xOf(entry.cancelledUs), middle);
        }
        svg.out() << "</g>\n";
    }

    drawLegend(svg, axisY + kAxisHeight + kLegendDrop);
    return std::move(svg).finish();
}

} // namespace parallel::language::future
