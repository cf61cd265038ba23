#include "cli.hpp"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#ifdef KAVRO_HAVE_CAIRO
#include <cairo/cairo.h>
#endif

namespace kavro::cli {

namespace {

struct CommandHelp {
    const char *name;
    Command command;
    const char *text;
};

const CommandHelp kCommands[] = {
    {"version", Command::Version, "version                       the loaded library's version text\n"},
    {"reg", Command::RegGet,
     "reg get SUBKEY ENTRY          print a value as its record's type gives it\n"
     "reg set [--dword] SUBKEY ENTRY VALUE\n"
     "                              write a string (no blanks), or a number with --dword\n"
     "reg list                      every record of /usr/torvanex/cfg/.registry\n"},
    {"ipc", Command::Ipc,
     "ipc [--root=DIR] [--clean [--dry-run]]\n"
     "                              named-pipe channels under DIR/kmxipc (default $TRVXROOT)\n"
     "                              and System V objects; --clean removes those nobody uses\n"},
    {"latency", Command::Latency,
     "latency [--seconds=N] [--svg=FILE] [--png=FILE] [--csv=FILE] [--quiet] [--idle]\n"
     "                              the 2 ms tick's lateness on this host (Ctrl-C ends early);\n"
     "                              --idle lets the CPUs enter deep idle states\n"},
    {"top", Command::Help,
     "top [--once] [--json] [--pid=N]\n"
     "                              live view of every process using the library\n"},
};

bool to_int(const char *s, int lo, int hi, int *out) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(s, &end, 10);
    if (end == s || *end != '\0' || errno != 0 || v < lo || v > hi) return false;
    *out = static_cast<int>(v);
    return true;
}

}  // namespace

std::string usage(const std::string &topic) {
    std::string s = "usage: kavro [--help] [--version] COMMAND [OPTIONS] [--] [ARGS]\n";
    for (const CommandHelp &c : kCommands)
        if (topic.empty() || topic == c.name) s += std::string("  ") + c.text;
    if (topic.empty()) s += "  help [COMMAND]                this text; `kavro COMMAND --help` for one command\n";
    return s;
}

bool parse(const std::vector<std::string> &argv, Options *out, std::string *error) {
    Options o;
    std::vector<std::string> copy = argv;
    copy.insert(copy.begin(), "kavro");
    std::vector<char *> av;
    for (std::string &a : copy) av.push_back(a.data());
    av.push_back(nullptr);
    const int ac = static_cast<int>(copy.size());

    enum { kHelp = 'h', kVersion = 'V', kDword = 1000, kSeconds, kSvg, kPng, kCsv, kQuiet, kIdle, kRoot, kClean, kDry };
    const option global[] = {{"help", no_argument, nullptr, kHelp}, {"version", no_argument, nullptr, kVersion}, {}};
    auto fail = [&](const std::string &e) {
        *error = e;
        return false;
    };
    opterr = 0;
    optind = 0;  // full reinitialisation: parse may run more than once
    int c;
    while ((c = getopt_long(ac, av.data(), "+hV", global, nullptr)) != -1) {
        if (c == kHelp) return *out = o, true;
        if (c == kVersion) return o.command = Command::Version, *out = o, true;
        return fail("unknown option '" + copy[static_cast<size_t>(optind - 1)] + "' (try: kavro --help)");
    }
    if (optind >= ac) return *out = o, true;
    const std::string cmd = copy[static_cast<size_t>(optind)];
    int first = optind + 1;
    if (cmd == "help") {
        if (first < ac) o.topic = copy[static_cast<size_t>(first)];
        return *out = o, true;
    }
    if (cmd == "version")
        o.command = Command::Version;
    else if (cmd == "ipc")
        o.command = Command::Ipc;
    else if (cmd == "latency")
        o.command = Command::Latency;
    else if (cmd == "reg") {
        const std::string sub = first < ac ? copy[static_cast<size_t>(first)] : "";
        if (sub == "--help" || sub == "-h") return o.topic = "reg", *out = o, true;
        if (sub == "get")
            o.command = Command::RegGet;
        else if (sub == "set")
            o.command = Command::RegSet;
        else if (sub == "list")
            o.command = Command::RegList;
        else if (sub.empty())
            return fail("reg needs a subcommand: get, set or list");
        else
            return fail("unknown reg subcommand '" + sub + "' (get, set or list)");
        ++first;
    } else {
        return fail("unknown command '" + cmd + "' (try: kavro --help)");
    }

    const option all[] = {{"help", no_argument, nullptr, kHelp},
                          {"dword", no_argument, nullptr, kDword},
                          {"seconds", required_argument, nullptr, kSeconds},
                          {"svg", required_argument, nullptr, kSvg},
                          {"png", required_argument, nullptr, kPng},
                          {"csv", required_argument, nullptr, kCsv},
                          {"quiet", no_argument, nullptr, kQuiet},
                          {"idle", no_argument, nullptr, kIdle},
                          {"root", required_argument, nullptr, kRoot},
                          {"clean", no_argument, nullptr, kClean},
                          {"dry-run", no_argument, nullptr, kDry},
                          {}};
    // Which options each command takes.
    auto allowed = [&](int opt) {
        switch (opt) {
            case kHelp: return true;
            case kDword: return o.command == Command::RegSet;
            case kSeconds:
            case kSvg:
            case kPng:
            case kCsv:
            case kQuiet:
            case kIdle: return o.command == Command::Latency;
            case kRoot:
            case kClean:
            case kDry: return o.command == Command::Ipc;
            default: return false;
        }
    };
    const std::string name = o.command == Command::RegGet    ? "reg get"
                             : o.command == Command::RegSet  ? "reg set"
                             : o.command == Command::RegList ? "reg list"
                                                             : cmd;
    std::vector<char *> sub(av.begin() + first - 1, av.end());
    const int sc = static_cast<int>(sub.size()) - 1;
    optind = 0;
    int idx = -1;
    while ((c = getopt_long(sc, sub.data(), "h", all, &idx)) != -1) {
        const std::string given = sub[static_cast<size_t>(optind - 1)];
        if (c == '?' || c == ':' || !allowed(c)) {
            if (c == '?' && optopt != 0 && allowed(optopt)) return fail("option '" + given + "' needs a value");
            return fail("unknown option '" + given + "' for " + name);
        }
        switch (c) {
            case kHelp:
                o.topic = cmd;
                o.command = Command::Help;
                *out = o;
                return true;
            case kDword: o.dword = true; break;
            case kSeconds:
                if (!to_int(optarg, 1, 3600, &o.seconds)) return fail("--seconds takes a number from 1 to 3600");
                break;
            case kSvg: o.svg = optarg; break;
            case kPng: o.png = optarg; break;
            case kCsv: o.csv = optarg; break;
            case kQuiet: o.quiet = true; break;
            case kIdle: o.idle = true; break;
            case kRoot: o.root = optarg; break;
            case kClean: o.clean = true; break;
            case kDry: o.dryRun = true; break;
        }
    }
    for (int i = optind; i < sc; ++i) o.args.push_back(sub[static_cast<size_t>(i)]);
    if (o.dryRun && !o.clean) return fail("--dry-run goes with --clean");

    const size_t want = o.command == Command::RegGet ? 2 : o.command == Command::RegSet ? 3 : 0;
    if (o.args.size() != want) {
        switch (o.command) {
            case Command::RegGet: return fail("reg get takes SUBKEY ENTRY");
            case Command::RegSet: return fail("reg set takes SUBKEY ENTRY VALUE");
            default: return fail(name + " takes no arguments");
        }
    }
    if (o.command == Command::RegSet) {
        const std::string &v = o.args[2];
        if (o.dword) {
            char *end = nullptr;
            errno = 0;
            unsigned long long n = std::strtoull(v.c_str(), &end, 0);
            if (v.empty() || *end != '\0' || v[0] == '-' || errno != 0 || n > 0xFFFFFFFFull)
                return fail("a REG_DWORD value is a number from 0 to 4294967295 (or 0x0 to 0xFFFFFFFF)");
        } else if (v.find_first_of(" \t") != std::string::npos) {
            return fail("a registry string cannot hold blanks: the library reads a value up to its first blank");
        }
    }
    *out = o;
    return true;
}

bool parse_registry(const std::string &text, std::vector<RegRecord> *records, std::string *error) {
    records->clear();
    const size_t nul = text.find('\0');
    if (nul != std::string::npos) {
        *error = "not a registry: binary data (a NUL byte at offset " + std::to_string(nul) + ")";
        return false;
    }
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        size_t nl = text.find('\n', at);
        if (nl == std::string::npos) nl = text.size();
        lines.push_back(text.substr(at, nl - at));
        at = nl + 1;
    }
    for (size_t i = 0; i + 4 <= lines.size(); i += 4)
        records->push_back({lines[i], lines[i + 1], lines[i + 2], lines[i + 3]});
    if (lines.size() % 4 != 0) {
        *error = "the registry ends inside a record (" + std::to_string(lines.size() % 4) + " line(s) left over)";
        return false;
    }
    return true;
}

const RegRecord *find_record(const std::vector<RegRecord> &records, const std::string &subkey,
                             const std::string &entry) {
    auto begins = [](const std::string &line, const std::string &name) {
        return name.compare(0, line.size(), line) == 0;
    };
    for (const RegRecord &r : records)
        if (begins(r.subkey, subkey) && begins(r.entry, entry)) return &r;
    return nullptr;
}

// ---- the histogram picture ------------------------------------------------------

namespace {

// What a picture is drawn with: the SVG text and the cairo surface share
// one layout.
struct Canvas {
    virtual ~Canvas() = default;
    virtual void rect(double x, double y, double w, double h, bool overflow) = 0;
    virtual void line(double x1, double y1, double x2, double y2) = 0;
    // anchor: 0 start, 1 middle, 2 end; vertical: rotated a quarter turn
    virtual void text(double x, double y, const std::string &s, int anchor, double size, bool vertical = false) = 0;
};

constexpr int kLeft = 80, kTop = 92, kPlotW = 720, kPlotH = 300, kWidth = kLeft + kPlotW + 30,
              kHeight = kTop + kPlotH + 60;

void draw_chart(Canvas &cv, const kavro::tool::LatencyStats &st, const RunInfo &info) {
    using kavro::tool::LatencyStats;
    // Bin width: a round number of microseconds so that about 40 bins reach
    // past the 99.9th percentile.
    const int64_t reach = std::max<int64_t>(10, st.percentile_us(0.999) * 3 / 2 + 1);
    int64_t width = 1;
    for (int64_t w : {1, 2, 5, 10, 20, 50, 100, 200, 500, 1000}) {
        width = w;
        if (reach / w <= 40) break;
    }
    const int n = static_cast<int>(std::min<int64_t>(reach / width + 1, 60)) + 1;  // last: overflow
    std::vector<uint64_t> bins(static_cast<size_t>(n), 0);
    for (int us = 0; us <= LatencyStats::kMaxUs; ++us)
        bins[std::min<size_t>(static_cast<size_t>(us / width), static_cast<size_t>(n - 1))] += st.histogram[us];
    uint64_t peak = 1;
    for (uint64_t v : bins) peak = std::max(peak, v);
    const int decades = std::max(1, static_cast<int>(std::ceil(std::log10(static_cast<double>(peak) + 1.0))));
    auto y_of = [&](double v) { return kTop + kPlotH - kPlotH * std::log10(v + 1.0) / decades; };
    const double bar_w = static_cast<double>(kPlotW) / n;

    char buf[256];
    cv.text(kLeft, 24, "libkavro_rt tick lateness on " + info.host, 0, 16);
    std::snprintf(buf, sizeof buf, "kernel %s, tick source: %s, %.1f s, %s", info.kernel.c_str(), info.source.c_str(),
                  info.seconds, info.date.c_str());
    cv.text(kLeft, 44, buf, 0, 12);
    std::snprintf(buf, sizeof buf, "%llu ticks: min %.1f us, avg %.1f us, p99 %lld us, max %.1f us",
                  static_cast<unsigned long long>(st.count), st.minNs / 1000.0, st.mean_us(),
                  static_cast<long long>(st.percentile_us(0.99)), st.maxNs / 1000.0);
    cv.text(kLeft, 62, buf, 0, 12);
    for (int i = 0; i < n; ++i) {
        const uint64_t v = bins[static_cast<size_t>(i)];
        if (v != 0)
            cv.rect(kLeft + i * bar_w + 1, y_of(static_cast<double>(v)), std::max(1.0, bar_w - 2),
                    kTop + kPlotH - y_of(static_cast<double>(v)), i + 1 == n);
    }
    cv.line(kLeft, kTop, kLeft, kTop + kPlotH);
    cv.line(kLeft, kTop + kPlotH, kLeft + kPlotW, kTop + kPlotH);
    // y axis: one labelled mark per decade of ticks
    for (int d = 0; d <= decades; ++d) {
        const double v = std::pow(10.0, d), y = y_of(d == 0 ? 1.0 : v);
        cv.line(kLeft - 5, y, kLeft, y);
        std::snprintf(buf, sizeof buf, "%.0f", v);
        cv.text(kLeft - 8, y + 4, buf, 2, 11);
    }
    // x axis: about ten labelled marks in microseconds
    const int step = std::max(1, n / 10);
    for (int i = 0; i < n; i += step) {
        const double x = kLeft + i * bar_w;
        cv.line(x, kTop + kPlotH, x, kTop + kPlotH + 5);
        cv.text(x, kTop + kPlotH + 18, std::to_string(i * width), 1, 11);
    }
    cv.text(kLeft + kPlotW / 2.0, kTop + kPlotH + 42, "lateness against the 2 ms grid (us); red: beyond the axis", 1,
            12);
    cv.text(18, kTop + kPlotH / 2.0, "ticks (log scale)", 1, 12, true);
}

std::string escape(const std::string &s) {
    std::string r;
    for (char c : s) {
        if (c == '<')
            r += "&lt;";
        else if (c == '>')
            r += "&gt;";
        else if (c == '&')
            r += "&amp;";
        else
            r += c;
    }
    return r;
}

struct SvgCanvas : Canvas {
    std::ostringstream s;
    void rect(double x, double y, double w, double h, bool overflow) override {
        char b[160];
        std::snprintf(b, sizeof b, "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\"/>\n", x, y,
                      w, h, overflow ? "#c0392b" : "#2e86c1");
        s << b;
    }
    void line(double x1, double y1, double x2, double y2) override {
        s << "<line x1=\"" << x1 << "\" y1=\"" << y1 << "\" x2=\"" << x2 << "\" y2=\"" << y2
          << "\" stroke=\"black\"/>\n";
    }
    void text(double x, double y, const std::string &t, int anchor, double size, bool vertical) override {
        static const char *anchors[] = {"start", "middle", "end"};
        s << "<text x=\"" << x << "\" y=\"" << y << "\" font-size=\"" << size << "\" text-anchor=\"" << anchors[anchor]
          << "\"";
        if (vertical) s << " transform=\"rotate(-90 " << x << " " << y << ")\"";
        s << ">" << escape(t) << "</text>\n";
    }
};

#ifdef KAVRO_HAVE_CAIRO
struct CairoCanvas : Canvas {
    cairo_t *cr;
    explicit CairoCanvas(cairo_t *c) : cr(c) {}
    void rect(double x, double y, double w, double h, bool overflow) override {
        if (overflow)
            cairo_set_source_rgb(cr, 0.75, 0.22, 0.17);
        else
            cairo_set_source_rgb(cr, 0.18, 0.53, 0.76);
        cairo_rectangle(cr, x, y, w, h);
        cairo_fill(cr);
    }
    void line(double x1, double y1, double x2, double y2) override {
        cairo_set_source_rgb(cr, 0, 0, 0);
        cairo_move_to(cr, x1 + 0.5, y1 + 0.5);
        cairo_line_to(cr, x2 + 0.5, y2 + 0.5);
        cairo_stroke(cr);
    }
    void text(double x, double y, const std::string &t, int anchor, double size, bool vertical) override {
        cairo_set_source_rgb(cr, 0, 0, 0);
        cairo_set_font_size(cr, size);
        cairo_text_extents_t e;
        cairo_text_extents(cr, t.c_str(), &e);
        cairo_save(cr);
        cairo_translate(cr, x, y);
        if (vertical) cairo_rotate(cr, -M_PI / 2);
        cairo_move_to(cr, -e.x_advance * anchor / 2.0, 0);
        cairo_show_text(cr, t.c_str());
        cairo_restore(cr);
    }
};
#endif

}  // namespace

std::string render_svg(const kavro::tool::LatencyStats &st, const RunInfo &info) {
    SvgCanvas cv;
    cv.s << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\"" << kHeight
         << "\" font-family=\"sans-serif\">\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    draw_chart(cv, st, info);
    cv.s << "</svg>\n";
    return cv.s.str();
}

bool write_png(const kavro::tool::LatencyStats &st, const RunInfo &info, const std::string &path, std::string *error) {
#ifdef KAVRO_HAVE_CAIRO
    cairo_surface_t *surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, kWidth, kHeight);
    cairo_t *cr = cairo_create(surface);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_line_width(cr, 1.0);
    CairoCanvas cv(cr);
    draw_chart(cv, st, info);
    cairo_destroy(cr);
    const cairo_status_t rc = cairo_surface_write_to_png(surface, path.c_str());
    cairo_surface_destroy(surface);
    if (rc != CAIRO_STATUS_SUCCESS) *error = cairo_status_to_string(rc);
    return rc == CAIRO_STATUS_SUCCESS;
#else
    (void)st, (void)info, (void)path;
    *error = "this kavro was built without PNG output (cairo missing)";
    return false;
#endif
}

std::string render_csv(const kavro::tool::LatencyStats &st) {
    std::string s = "lateness_us,ticks\n";
    for (int us = 0; us <= kavro::tool::LatencyStats::kMaxUs; ++us)
        if (st.histogram[us] != 0) s += std::to_string(us) + "," + std::to_string(st.histogram[us]) + "\n";
    return s;
}

}  // namespace kavro::cli
