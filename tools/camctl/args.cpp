// Command-line parsing: options as "--name value" or "--name=value", flags,
// positional arguments, and the help text of a subcommand.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "cli.h"

namespace camctl_cli {

void Fail(int code, const std::string& message) { throw Failure{code, message}; }

namespace {

const OptionSpec* FindOption(const CommandSpec& spec, const std::string& name) {
    for (const OptionSpec& o : spec.options)
        if (name == o.name) return &o;
    return nullptr;
}

[[noreturn]] void Usage(const CommandSpec& spec, const std::string& what) {
    Fail(kExitUsage, std::string(spec.name) + ": " + what + " (see: camctl " + spec.name + " --help)");
}

}  // namespace

Args ParseArgs(const CommandSpec& spec, int argc, char** argv, int first) {
    Args args;
    args.command = spec.name;
    bool options_done = false;
    for (int i = first; i < argc; ++i) {
        std::string a = argv[i];
        if (!options_done && (a == "--help" || a == "-h")) {
            args.help = true;
            return args;
        }
        if (!options_done && a == "--") {
            options_done = true;
            continue;
        }
        if (options_done || a.size() < 2 || a[0] != '-' || a == "-") {
            args.positional_.push_back(a);
            continue;
        }
        std::string name = a, value;
        bool has_inline = false;
        if (size_t eq = a.find('='); eq != std::string::npos && a.rfind("--", 0) == 0) {
            name = a.substr(0, eq);
            value = a.substr(eq + 1);
            has_inline = true;
        }
        const OptionSpec* o = FindOption(spec, name);
        if (!o) Usage(spec, "unknown option " + name);
        if (!o->value_name) {
            if (has_inline) Usage(spec, name + " takes no value");
            args.flags_.insert(name);
            continue;
        }
        if (!has_inline) {
            if (i + 1 >= argc) Usage(spec, name + " needs a value " + o->value_name);
            value = argv[++i];
        }
        args.values_[name] = value;
    }
    const int n = static_cast<int>(args.positional_.size());
    if (n < spec.min_positional)
        Usage(spec, std::string("missing ") + (spec.min_positional == 1 ? "argument" : "arguments"));
    if (n > spec.max_positional) Usage(spec, "unexpected argument " + args.positional_[spec.max_positional]);
    return args;
}

bool Args::Has(const std::string& name) const {
    return flags_.count(name) != 0 || values_.count(name) != 0;
}

std::string Args::Get(const std::string& name, const std::string& fallback) const {
    auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

int Args::GetInt(const std::string& name, int fallback, int lo, int hi) const {
    auto it = values_.find(name);
    if (it == values_.end()) return fallback;
    const char* text = it->second.c_str();
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi)
        Fail(kExitUsage, command + ": " + name + " wants a whole number from " + std::to_string(lo) +
                             " to " + std::to_string(hi) + ", not '" + it->second + "'");
    return static_cast<int>(v);
}

double Args::GetDouble(const std::string& name, double fallback, double lo, double hi) const {
    auto it = values_.find(name);
    if (it == values_.end()) return fallback;
    const char* text = it->second.c_str();
    char* end = nullptr;
    errno = 0;
    double v = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !std::isfinite(v) || v < lo || v > hi) {
        char range[96];
        snprintf(range, sizeof range, " wants a number from %g to %g", lo, hi);
        Fail(kExitUsage, command + ": " + name + range + ", not '" + it->second + "'");
    }
    return v;
}

std::string HelpText(const CommandSpec& spec) {
    std::string text = "usage: camctl ";
    text += spec.name;
    if (*spec.synopsis) text += std::string(" ") + spec.synopsis;
    text += "\n\n";
    text += spec.summary;
    text += "\n";
    if (spec.details && *spec.details) text += std::string("\n") + spec.details;
    text += "\noptions:\n";
    for (const OptionSpec& o : spec.options) {
        std::string left = std::string("  ") + o.name;
        if (o.value_name) left += std::string(" ") + o.value_name;
        if (left.size() < 24) left.resize(24, ' ');
        else left += "  ";
        text += left + o.help + "\n";
    }
    text += "  -h, --help            this text\n";
    return text;
}

}  // namespace camctl_cli
