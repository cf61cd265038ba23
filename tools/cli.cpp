#include "cli.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace kavro::cli {

namespace {

bool to_int(const std::string &s, int lo, int hi, int *out) {
    if (s.empty()) return false;
    char *end = nullptr;
    long v = std::strtol(s.c_str(), &end, 10);
    if (*end != '\0' || v < lo || v > hi) return false;
    *out = static_cast<int>(v);
    return true;
}

}  // namespace

std::string usage() {
    return "usage: kavro COMMAND [ARGS]\n"
           "  version                                 the library's version text\n"
           "  reg get SUBKEY ENTRY [--dword]          read a registry value\n"
           "  reg set SUBKEY ENTRY VALUE [--dword]    write a registry value (string unless --dword)\n"
           "  reg list                                every record of the registry\n"
           "  ipc [--root DIR]                        named-pipe channels and System V objects\n"
           "  latency [--seconds N] [--svg FILE] [--quiet] [--idle]\n"
           "                                          measure the 2 ms tick's lateness here\n"
           "                                          (--idle: let the CPU enter deep idle states)\n"
           "  top [--once] [--json] [--pid N]         live view of every process using the library\n"
           "  help                                    this text\n";
}

bool parse(const std::vector<std::string> &argv, Options *out, std::string *error) {
    Options o;
    if (argv.empty() || argv[0] == "help" || argv[0] == "--help" || argv[0] == "-h") {
        *out = o;
        return true;
    }
    const std::string &cmd = argv[0];
    size_t i = 1;
    if (cmd == "version") {
        o.command = Command::Version;
    } else if (cmd == "reg") {
        if (argv.size() < 2) {
            *error = "reg needs a subcommand: get, set or list";
            return false;
        }
        const std::string &sub = argv[1];
        if (sub == "get") o.command = Command::RegGet;
        else if (sub == "set") o.command = Command::RegSet;
        else if (sub == "list") o.command = Command::RegList;
        else {
            *error = "unknown reg subcommand '" + sub + "' (get, set or list)";
            return false;
        }
        i = 2;
    } else if (cmd == "ipc") {
        o.command = Command::Ipc;
    } else if (cmd == "latency") {
        o.command = Command::Latency;
    } else {
        *error = "unknown command '" + cmd + "' (try: kavro help)";
        return false;
    }

    for (; i < argv.size(); ++i) {
        const std::string &a = argv[i];
        auto value = [&](const char *what) -> const std::string * {
            if (i + 1 >= argv.size()) {
                *error = a + " needs " + what;
                return nullptr;
            }
            return &argv[++i];
        };
        if (a == "--dword" && (o.command == Command::RegGet || o.command == Command::RegSet)) {
            o.dword = true;
        } else if (a == "--seconds" && o.command == Command::Latency) {
            const std::string *v = value("a number");
            if (!v) return false;
            if (!to_int(*v, 1, 3600, &o.seconds)) {
                *error = "--seconds takes a number from 1 to 3600";
                return false;
            }
        } else if (a == "--svg" && o.command == Command::Latency) {
            const std::string *v = value("a file name");
            if (!v) return false;
            o.svg = *v;
        } else if (a == "--quiet" && o.command == Command::Latency) {
            o.quiet = true;
        } else if (a == "--idle" && o.command == Command::Latency) {
            o.idle = true;
        } else if (a == "--root" && o.command == Command::Ipc) {
            const std::string *v = value("a directory");
            if (!v) return false;
            o.root = *v;
        } else if (a.size() > 1 && a[0] == '-' && a != "-") {
            *error = "unknown option '" + a + "' for " + cmd;
            return false;
        } else {
            o.args.push_back(a);
        }
    }

    size_t want = 0;
    switch (o.command) {
        case Command::RegGet: want = 2; break;
        case Command::RegSet: want = 3; break;
        default: want = 0; break;
    }
    if (o.args.size() != want) {
        switch (o.command) {
            case Command::RegGet: *error = "reg get takes SUBKEY ENTRY"; break;
            case Command::RegSet: *error = "reg set takes SUBKEY ENTRY VALUE"; break;
            case Command::RegList: *error = "reg list takes no arguments"; break;
            default: *error = cmd + " takes no arguments"; break;
        }
        return false;
    }
    if (o.command == Command::RegSet && o.dword) {
        const std::string &v = o.args[2];
        char *end = nullptr;
        unsigned long long n = std::strtoull(v.c_str(), &end, 0);
        if (v.empty() || *end != '\0' || v[0] == '-' || n > 0xFFFFFFFFull) {
            *error = "a REG_DWORD value is a number from 0 to 4294967295";
            return false;
        }
    }
    *out = o;
    return true;
}

std::string render_svg(const kavro::detail::LatencyStats &st, const std::string &title) {
    using kavro::detail::LatencyStats;
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
    for (int us = 0; us <= LatencyStats::kMaxUs; ++us) {
        size_t idx = std::min<size_t>(static_cast<size_t>(us / width), static_cast<size_t>(n - 1));
        bins[idx] += st.histogram[us];
    }

    const int left = 70, top = 56, plot_w = 720, plot_h = 300;
    const double bar_w = static_cast<double>(plot_w) / n;
    uint64_t peak = 1;
    for (uint64_t v : bins) peak = std::max(peak, v);
    const double log_peak = std::log10(static_cast<double>(peak) + 1.0);

    std::string safe;
    for (char c : title) {
        if (c == '<') safe += "&lt;";
        else if (c == '>') safe += "&gt;";
        else if (c == '&') safe += "&amp;";
        else safe += c;
    }
    std::ostringstream s;
    char buf[256];
    s << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << left + plot_w + 30 << "\" height=\""
      << top + plot_h + 70 << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      << "<text x=\"" << left << "\" y=\"24\" font-size=\"16\">" << safe << "</text>\n";
    std::snprintf(buf, sizeof buf, "%llu ticks: min %.1f us, avg %.1f us, p99 %lld us, max %.1f us",
                  static_cast<unsigned long long>(st.count), st.minNs / 1000.0, st.mean_us(),
                  static_cast<long long>(st.percentile_us(0.99)), st.maxNs / 1000.0);
    s << "<text x=\"" << left << "\" y=\"44\">" << buf << "</text>\n";
    s << "<path d=\"M" << left << " " << top << " V" << top + plot_h << " H" << left + plot_w
      << "\" stroke=\"black\" fill=\"none\"/>\n";
    for (int i = 0; i < n; ++i) {
        if (bins[static_cast<size_t>(i)] == 0) continue;
        const uint64_t v = bins[static_cast<size_t>(i)];
        const double h = plot_h * std::log10(static_cast<double>(v) + 1.0) / log_peak;
        std::snprintf(buf, sizeof buf,
                      "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\">"
                      "<title>%llu</title></rect>\n",
                      left + i * bar_w + 1, top + plot_h - h, std::max(1.0, bar_w - 2), h,
                      i + 1 == n ? "#c0392b" : "#2e86c1", static_cast<unsigned long long>(v));
        s << buf;
    }
    const int step = std::max(1, n / 10);
    for (int i = 0; i < n; i += step) {
        s << "<text x=\"" << left + static_cast<int>(i * bar_w) << "\" y=\"" << top + plot_h + 16
          << "\" text-anchor=\"middle\">" << i * width << "</text>\n";
    }
    s << "<text x=\"" << left + plot_w / 2 << "\" y=\"" << top + plot_h + 40
      << "\" text-anchor=\"middle\">lateness against the 2 ms grid (us); red: beyond the axis</text>\n"
      << "<text x=\"16\" y=\"" << top + plot_h / 2 << "\" transform=\"rotate(-90 16 " << top + plot_h / 2
      << ")\" text-anchor=\"middle\">ticks (log scale)</text>\n</svg>\n";
    return s.str();
}

}  // namespace kavro::cli
