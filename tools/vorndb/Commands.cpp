// Command dispatch, help texts, and the shell and script runner of the vorndb
// tool (see Commands.h).
#include "Commands.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "Backend.h"
#include "Common.h"
#include "Completion.h"
#include "LineReader.h"
#include "Names.h"
#include "Remote.h"
#include "Session.h"
#include "StreamDump.h"

#ifndef VORNDB_VERSION
#define VORNDB_VERSION "unknown"
#endif

namespace vorndb {

namespace {

constexpr ExitCode kExitDifferent = static_cast<ExitCode>(6);  // diff: the files differ
constexpr int kMaxScriptDepth = 8;
constexpr ULONG kDefaultWaitMs = 10000;
constexpr ULONG kFinalWaitMs = 2000;

const char kOverview[] =
    "usage: vorndb COMMAND [ARGUMENTS]      ('vorndb COMMAND --help' for details)\n"
    "\n"
    "Browse, edit, watch and inspect the vorn parameter database.\n"
    "\n"
    "Commands:\n"
    "%s"
    "\n"
    "In 'shell' and 'run' also:\n"
    "%s"
    "\n"
    "Names are full names with their exact letter case, the groups joined by '.', an\n"
    "array element with its index: UserSettings.PhaseNoiseSettings.SignalFreq,\n"
    "NoiseFreqTablePreset[2]. A name that is not in the tree is reported with the\n"
    "closest existing names.\n"
    "\n"
    "Values: reals with their unit and an engineering prefix or without (10 kHz, 10k,\n"
    "1e4, -30 dBm); enumerations by member name, with or without the enumeration's\n"
    "prefix, or by number (eRBWTOVBW_1TO10, 1TO10, 2); booleans as true/false,\n"
    "on/off, yes/no, 1/0; strings as they are or in double quotes with \\\" \\\\ \\n \\t\n"
    "escapes; arrays as comma-separated lists (1, 2, 3).\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  other failure: the database cannot be created, an interface call failed,\n"
    "     a wait timed out\n"
    "  2  usage error: unknown command or option, wrong arguments, bad quoting\n"
    "  3  unknown name: not in the tree (or, for describe, not in the type library)\n"
    "  4  value rejected: it cannot be read, or the parameter refused it\n"
    "  5  file error: a file cannot be read or written, is damaged, or the database\n"
    "     refuses it\n"
    "  6  diff: the two files differ\n"
    "  7  set --settings: a name outside the node the settings file holds\n"
    "  8  set --settings: the file holds a value the database refuses on loading\n"
    "Nothing is written to a settings file unless the whole command succeeded.\n"
    "\n"
    "The daemon's database: options before the command (vorndb --remote get NAME):\n"
    "  --remote[=bus|socket]  run the command against a running vorndbd instead of a\n"
    "                         database of the tool's own (default: the bus); output\n"
    "                         and exit codes are those of a local run\n"
    "  --system, --session, --address ADDRESS   the bus (default: the system bus)\n"
    "  --socket PATH          the daemon's direct socket (default:\n"
    "                         $RUNTIME_DIRECTORY/vorndbd.socket or\n"
    "                         /run/vorndb/vorndbd.socket)\n"
    "  dump, diff, lines and describe read files and the type library locally;\n"
    "  suppress, restart, stats and --settings are for the tool's own database only.\n"
    "\n"
    "Environment:\n"
    "  VORNDB_MODULE  the module to create the database from, instead of the class\n"
    "                 registered for Zelmwerk.VORN.Database or, without one, the\n"
    "                 libvorndb.so installed beside the tool (../lib, or the tool's\n"
    "                 own directory)\n"
    "  VORN_REGISTRY  the registry file of the runtime (default:\n"
    "                 $XDG_CONFIG_HOME/vorndb/registry.reg)\n";

// Parsed arguments of one command.
struct Args {
    std::vector<std::string> positional;
    std::map<std::string, std::string> options;  // --name VALUE
    std::set<std::string> flags;                 // --name
    bool Has(const std::string& flag) const { return flags.count(flag) != 0; }
    const std::string* Option(const std::string& name) const {
        const auto it = options.find(name);
        return it == options.end() ? nullptr : &it->second;
    }
};

// What `lines` shows of one limit-line (.lin) or transducer-factor (.tdf)
// file: u16 0x5001, u16 the member's index, the member's settings record.
struct LineFileSummary {
    bool ok = false;
    std::string problem;  // when not ok: "offset 0x2 (2): ..."
    unsigned index = 0;
    std::string name = "-";
    std::string exists = "-";
    std::string points = "-";
};

// Decodes a line file with the settings stream decoder: the record follows
// the index as a stream's record follows its mark.
LineFileSummary SummariseLineFile(const std::vector<std::uint8_t>& bytes, const std::string& member) {
    LineFileSummary s;
    const auto bad = [&](std::size_t offset, const std::string& problem) {
        s.problem = "offset " + OffsetText(offset) + ": " + problem;
        return s;
    };
    if (bytes.size() < 4)
        return bad(0, std::to_string(bytes.size()) + " bytes, fewer than the mark and the index take");
    const auto mark = LoadLittleEndian<std::uint16_t>(bytes.data());
    s.index = LoadLittleEndian<std::uint16_t>(bytes.data() + 2);
    if (mark != kStreamMark) return bad(0, "the mark " + std::to_string(mark) + ", not 0x5001");
    if (s.index >= 100) return bad(2, "the index " + std::to_string(s.index) + ", not below 100");
    std::vector<std::uint8_t> stream(bytes.begin(), bytes.begin() + 2);
    stream.insert(stream.end(), bytes.begin() + 4, bytes.end());
    const DecodedStream decoded = DecodeStream(std::move(stream));
    const auto at = [](std::size_t offset) { return offset < 2 ? offset : offset + 2; };
    if (!decoded.ok) return bad(at(decoded.badOffset), decoded.error);
    if (decoded.trailing > 0)
        return bad(bytes.size() - decoded.trailing, std::to_string(decoded.trailing) + " bytes after the record");
    const StreamRecord top = TopRecord(decoded);
    const std::string expected = member + "[" + std::to_string(s.index) + "]";
    if (!top.group || top.name != expected)
        return bad(10, "the record '" + top.name + "' where index " + std::to_string(s.index) + " needs the group '" +
                           expected + "'");
    ForEachRecord(decoded, [&](const StreamRecord& record, std::size_t depth) {
        if (depth != 1 || record.group) return;
        if (record.name == "Name") s.name = record.valid() ? "\"" + record.text + "\"" : "<invalid>";
        if (record.name == "Exists") s.exists = !record.valid() ? "<invalid>" : record.integer ? "yes" : "no";
        if (record.name == "PointCount") s.points = record.valid() ? std::to_string(record.integer) : "<invalid>";
    });
    s.ok = true;
    return s;
}

class Tool;

enum class Where { Anywhere, ShellOnly, TopOnly };

struct Command {
    const char* name;
    const char* synopsis;
    const char* summary;
    const char* details;
    std::vector<std::string> valueOptions;
    std::vector<std::string> flagOptions;
    std::size_t minArgs;
    std::size_t maxArgs;  // SIZE_MAX: any number
    Where where;
    void (Tool::*run)(const Args&);
};

const std::vector<Command>& Commands();

ToolError Usage(const Command& command, const std::string& problem) {
    return ToolError(kExitUsage, std::string(command.name) + ": " + problem + "\nusage: vorndb " + command.synopsis);
}

std::string Pad(const std::string& text, std::size_t width) {
    return text.size() >= width ? text + "  " : text + std::string(width - text.size() + 2, ' ');
}

// The built-in noise frequency tables as `tables` names them, by index.
constexpr int kNoiseTables = 16;
constexpr int kNoiseTableRows = 25;
constexpr const char* kTableFamilies[] = {"standard", "P17", "baseband", "residual"};
constexpr const char* kTableModes[kNoiseTables] = {
    "fast", "regular averaged", "highly averaged", "manual", "fast", "normal", "high",     "manual",
    "fast", "regular averaged", "highly averaged", "manual", "fast", "normal", "averaged", "manual"};

// Columns padded to their widest cell; the last column is not padded.
void PrintColumns(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows)
        for (std::size_t c = 0; c < row.size(); ++c) {
            if (widths.size() <= c) widths.push_back(0);
            widths[c] = std::max(widths[c], row[c].size());
        }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t c = 0; c < row.size(); ++c) line += c + 1 < row.size() ? Pad(row[c], widths[c]) : row[c];
        Print(line);
    }
}

// One row of `tree`.
struct Row {
    std::string name, family, value, status, limits;
};

void PrintRows(const std::vector<Row>& rows) {
    std::size_t w0 = 0, w1 = 0, w2 = 0, w3 = 0;
    for (const Row& r : rows) {
        w0 = std::max(w0, std::min<std::size_t>(r.name.size(), 60));
        w1 = std::max(w1, r.family.size());
        w2 = std::max(w2, std::min<std::size_t>(r.value.size(), 40));
        w3 = std::max(w3, r.status.size());
    }
    for (const Row& r : rows) {
        std::string line = Pad(r.name, w0) + Pad(r.family, w1) + Pad(r.value, w2) + Pad(r.status, w3) + r.limits;
        while (!line.empty() && line.back() == ' ') line.pop_back();
        Print(line);
    }
}

// The tool: one command line, or the commands of a shell or script.
class Tool {
public:
    // `remote`: the commands talk to a running daemon instead of a database
    // of the tool's own.
    explicit Tool(std::optional<RemoteOptions> remote = std::nullopt) : remote_(std::move(remote)) {}
    ~Tool() { FinishWatches(); }

    // Runs one command given as words. Throws ToolError.
    void Execute(const std::vector<std::string>& words) {
        if (words.empty()) return;
        const Command* command = Find(words[0]);
        if (!command)
            throw ToolError(kExitUsage,
                            UnknownNameMessage("command", words[0], ClosestNames(words[0], CommandNames())) +
                                " ('vorndb help' lists the commands)");
        if (std::find(words.begin() + 1, words.end(), "--help") != words.end()) {
            PrintHelp(*command);
            return;
        }
        if (command->where == Where::ShellOnly && !inShell_)
            throw ToolError(kExitUsage, std::string(command->name) + ": only in 'vorndb shell' and 'vorndb run'");
        if (command->where == Where::TopOnly && inShell_ && std::strcmp(command->name, "run") != 0)
            throw ToolError(kExitUsage, std::string(command->name) + ": already in the shell");
        (this->*command->run)(Parse(*command, words));
        if (target_) target_->Deliver();
    }

    // The exit status of a shell: its last command's.
    int status() const { return status_; }

    // Commands --------------------------------------------------------------

    void Tree(const Args& args) {
        LoadSettingsOption(args);
        long depth = -1;
        if (const std::string* d = args.Option("depth")) {
            char* end = nullptr;
            depth = std::strtol(d->c_str(), &end, 10);
            if (d->empty() || *end != '\0' || depth < 0)
                throw Usage(Get("tree"), "--depth needs a number >= 0, not '" + *d + "'");
        }
        Backend& db = Target();
        const Node start = db.Resolve(args.positional.empty() ? std::string() : args.positional[0]);
        std::vector<Row> rows;
        // The root itself has no line: its children are the first level.
        const bool fromRoot = start.fullName.empty();
        std::function<void(const Node&, long)> visit = [&](const Node& node, long below) {
            std::vector<Node> children;
            if (node.family == Family::Group) children = db.Children(node);
            if (!(fromRoot && below == 0)) {
                Row row;
                const long indent = fromRoot ? below - 1 : below;
                row.name =
                    std::string(static_cast<std::size_t>(indent) * 2, ' ') + (below == 0 ? node.fullName : node.name);
                row.family = FamilyName(node.family);
                if (node.family == Family::Group) {
                    row.value = "(" + std::to_string(children.size()) + " children)";
                } else {
                    const Reading r = db.Read(node, 8);
                    row.value = r.value;
                    row.status = r.status;
                    row.limits = r.limits;
                }
                rows.push_back(row);
            }
            if (depth >= 0 && below + 1 > depth) return;
            for (const Node& child : children) visit(child, below + 1);
        };
        visit(start, 0);
        PrintRows(rows);
    }

    void GetValues(const Args& args) {
        LoadSettingsOption(args);
        Backend& db = Target();
        std::vector<Node> nodes;
        for (const std::string& name : args.positional) nodes.push_back(db.Resolve(name));
        std::function<void(const Node&)> print = [&](const Node& node) {
            if (node.family != Family::Group) {
                Print(node.fullName + " = " + db.Read(node).value);
                return;
            }
            for (const Node& child : db.Children(node)) print(child);
        };
        for (const Node& node : nodes) print(node);
    }

    void SetValues(const Args& args) {
        std::vector<std::pair<std::string, std::string>> pairs;
        for (const std::string& word : args.positional) {
            const std::size_t eq = word.find('=');
            if (eq == std::string::npos || eq == 0) throw Usage(Get("set"), "'" + word + "' is not NAME=VALUE");
            pairs.emplace_back(word.substr(0, eq), word.substr(eq + 1));
        }
        const std::string* settings = args.Option("settings");
        Node target;
        if (settings) target = LoadSettingsOption(args);
        Backend& db = Target();
        std::vector<Node> nodes;
        nodes.reserve(pairs.size());
        for (const auto& pair : pairs) nodes.push_back(db.Resolve(pair.first));
        if (settings) CheckSettingsWrite(*settings, target, nodes);
        std::vector<std::string> report;
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            const HRESULT hr = db.Write(nodes[i], pairs[i].second);
            report.push_back(nodes[i].fullName + " = " + db.Read(nodes[i]).value +
                             (hr == S_FALSE ? " (unchanged)" : ""));
        }
        if (settings) Db().SaveSettings(*settings, target);
        for (const std::string& line : report) Print(line);
    }

    // Sets the export controls of OtherSettings from the options, then assigns
    // OtherSettings.ExportedTrace, which writes the file.
    void ExportData(const Args& args) {
        LoadSettingsOption(args);
        Backend& db = Target();
        const std::string& path = args.positional[0];
        const bool spurs = args.Has("spurs");
        const std::string other = "OtherSettings.";
        db.Write(db.Resolve(other + "NewDataFileType"), spurs ? "1" : "0");
        db.Write(db.Resolve(other + (spurs ? "NewSpursFile" : "NewTraceFile")), path);
        db.Write(db.Resolve(other + "DotDecimalStyle"), args.Has("commas") ? "false" : "true");
        db.Write(db.Resolve(other + "TraceExportHeader"), args.Has("no-header") ? "false" : "true");
        db.Write(db.Resolve(other + "TraceExportAllTraces"), args.Has("all-traces") ? "true" : "false");
        db.Export(db.Resolve(other + "ExportedTrace"), path);
        Print((spurs ? "spurs exported to " : "traces exported to ") + path);
    }

    // A settings file is rewritten only with what it holds, and only when it
    // loaded whole: a name outside its node, or a stored value the database
    // refused (loaded as invalid) and the command does not set, is an error
    // and nothing is written.
    void CheckSettingsWrite(const std::string& path, const Node& target, const std::vector<Node>& nodes) {
        const std::string prefix = target.fullName + ".";
        for (const Node& node : nodes)
            if (!target.fullName.empty() && node.fullName != target.fullName && node.fullName.rfind(prefix, 0) != 0)
                throw ToolError(kExitOutsideSettings, node.fullName + " is not in " + path + ", which holds " +
                                                          target.fullName + "; nothing written");
        for (const std::string& refused : Db().RefusedOnLoad()) {
            const bool set =
                std::any_of(nodes.begin(), nodes.end(), [&](const Node& n) { return n.fullName == refused; });
            if (set) continue;
            std::string message = path;
            message +=
                ": the database refuses its stored value of " + refused + " (loaded as invalid); nothing written";
            throw ToolError(kExitRefusedInFile, message);
        }
    }

    void Describe(const Args& args) {
        Session& db = Db();
        const TypeLibrary* types = db.Types();
        if (!types) throw ToolError(kExitFailure, "describe: the database has no type library");
        const std::string& name = args.positional[0];
        if (const TypeDescription* type = types->Find(name)) {
            PrintType(*type);
            return;
        }
        Node node;
        try {
            node = db.Resolve(name);
        } catch (const ToolError& e) {
            if (e.code() != kExitUnknownName) throw;
            std::vector<std::string> candidates = types->Names();
            const std::vector<std::string>& names = db.AllNames();
            candidates.insert(candidates.end(), names.begin(), names.end());
            throw ToolError(kExitUnknownName,
                            UnknownNameMessage("name, interface or enumeration", name, ClosestNames(name, candidates)));
        }
        const TypeDescription* owner = nullptr;
        const TypeMember* member = types->MemberOf(node.fullName, &owner);
        Print(Label(node));
        Print("  family      " + std::string(FamilyName(node.family)));
        if (member && owner) {
            Print("  member      " + member->name + (member->indexed ? "[]" : "") + " of " + owner->name +
                  ", dispatch identifier " + std::to_string(member->id));
            Print("  interface   " + member->target);
            if (!member->doc.empty()) Print("  doc         " + member->doc);
        } else {
            Print("  member      (not described by the type library)");
        }
        if (node.family != Family::Group) {
            // A remote backend reads by the node's full name and family.
            const Reading r = Target().Read(node, 8);
            Print("  value       " + r.value + "  (" + r.status + ")" + (r.limits.empty() ? "" : "  " + r.limits));
        }
        const std::string enumeration = member ? TypeLibrary::EnumerationOf(*member) : std::string();
        if (const TypeDescription* e = enumeration.empty() ? nullptr : types->Find(enumeration)) PrintType(*e);
        if (node.family == Family::Group)
            if (const TypeDescription* iface = types->InterfaceOf(node.fullName)) PrintType(*iface);
    }

    void Dump(const Args& args) {
        const std::string& path = args.positional[0];
        const DecodedStream stream = DecodeStream(ReadFileBytes(path));
        PrintTo([&](const TextSink& out) {
            if (args.Has("json"))
                DumpJson(stream, out);
            else
                DumpText(stream, out, args.Has("all") ? 0 : 8);
        });
        if (!stream.ok)
            throw ToolError(kExitFile,
                            path + ": first bad byte at offset " + OffsetText(stream.badOffset) + ": " + stream.error);
    }

    void Lines(const Args& args) {
        namespace fs = std::filesystem;
        const std::string& directory = args.positional[0];
        std::error_code error;
        std::vector<std::string> files;
        for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
            const std::string name = it->path().filename().string();
            const std::string extension = it->path().extension().string();
            if ((extension == ".lin" || extension == ".tdf") && name[0] != '.') files.push_back(name);
        }
        if (error) throw ToolError(kExitFile, directory + ": cannot be listed: " + error.message());
        std::sort(files.begin(), files.end());
        std::size_t width = 4;
        for (const std::string& file : files) width = std::max(width, file.size());
        const auto column = [&](const std::string& text) { return text + std::string(width + 2 - text.size(), ' '); };
        Print(column("FILE") + "INDEX  EXISTS  POINTS  NAME");
        std::size_t damaged = 0;
        for (const std::string& file : files) {
            LineFileSummary s;
            try {
                s = SummariseLineFile(ReadFileBytes((fs::path(directory) / file).string()),
                                      fs::path(file).extension() == ".lin" ? "Line" : "Factor");
            } catch (const ToolError& e) {
                s.problem = e.what();
            }
            if (!s.ok) {
                ++damaged;
                Print(column(file) + "damaged: " + s.problem);
                continue;
            }
            const std::string index = std::to_string(s.index);
            Print(column(file) + std::string(5 - index.size(), ' ') + index + "  " + s.exists +
                  std::string(8 - std::min<std::size_t>(8, s.exists.size()), ' ') + s.points +
                  std::string(8 - std::min<std::size_t>(8, s.points.size()), ' ') + s.name);
        }
        if (damaged > 0)
            throw ToolError(kExitFile, std::to_string(damaged) + " of " + std::to_string(files.size()) + " files in " +
                                           directory + " are damaged");
    }

    void Diff(const Args& args) {
        const DecodedStream a = DecodeChecked(args.positional[0]);
        const DecodedStream b = DecodeChecked(args.positional[1]);
        const StreamRecord topA = TopRecord(a), topB = TopRecord(b);
        std::size_t differences = 0, parameters = 0;
        if (topA.name != topB.name) {
            Print("~ <top record>: '" + topA.name + "' -> '" + topB.name + "'");
            ++differences;
        }
        // Parameters by full name below the top record; a top parameter by its own name.
        const std::string nameA = topA.group ? "" : topA.name, nameB = topB.group ? "" : topB.name;
        {
            const ParameterIndex right(b, nameB);
            ForEachParameter(a, nameA, [&](const std::string& name, const StreamRecord& record) {
                ++parameters;
                const std::string value = RecordValue(record, 0);
                const std::optional<StreamRecord> other = right.Find(name);
                if (!other) {
                    Print("- " + name + " = " + value);
                    ++differences;
                } else if (const std::string otherValue = RecordValue(*other, 0); otherValue != value) {
                    Print("~ " + name + ": " + value + " -> " + otherValue);
                    ++differences;
                }
            });
        }
        const ParameterIndex left(a, nameA);
        ForEachParameter(b, nameB, [&](const std::string& name, const StreamRecord& record) {
            if (left.Find(name)) return;
            Print("+ " + name + " = " + RecordValue(record, 0));
            ++differences;
        });
        if (differences == 0) {
            Print("no differences (" + std::to_string(parameters) + " parameters)");
            return;
        }
        throw ToolError(kExitDifferent,
                        std::to_string(differences) + (differences == 1 ? " difference" : " differences"));
    }

    void Shell(const Args&) {
        inShell_ = true;
        LineReader reader(SessionSources(CommandNames(), [this]() -> Session& { return Db(); }));
        if (reader.Editing()) Print("vorndb " VORNDB_VERSION " shell: 'help' lists the commands, 'quit' leaves.");
        status_ = RunLines(reader, "", false);
        FinishWatches();
    }

    void Run(const Args& args) {
        const std::string& path = args.positional[0];
        if (depth_ >= kMaxScriptDepth) throw ToolError(kExitUsage, "run: scripts nested more than 8 deep");
        std::FILE* file = path == "-" ? stdin : std::fopen(path.c_str(), "r");
        if (!file) throw ToolError(kExitFile, path + ": cannot be opened: " + std::strerror(errno));
        const bool outer = !inShell_;
        inShell_ = true;
        ++depth_;
        int status;
        {
            LineReader reader(file);
            // A script is never edited, even when it is the terminal.
            status = RunLines(reader, path == "-" ? "<stdin>" : path, true, /*plain=*/true);
        }
        --depth_;
        if (file != stdin) std::fclose(file);
        if (outer) FinishWatches();
        quit_ = false;
        if (status != kExitOk) throw ToolError(static_cast<ExitCode>(status), "");
    }

    void Help(const Args& args) {
        if (args.positional.empty()) {
            PrintRaw(Overview());
            return;
        }
        const Command* command = Find(args.positional[0]);
        if (!command)
            throw ToolError(kExitUsage, UnknownNameMessage("command", args.positional[0],
                                                           ClosestNames(args.positional[0], CommandNames())));
        PrintHelp(*command);
    }

    void Watch(const Args& args) {
        Backend& db = Target();
        const Node node = db.Resolve(args.positional[0]);
        Print((db.Watch(node) ? "watching " : "already watching ") + Label(node));
    }

    void Unwatch(const Args& args) {
        Backend& db = Target();
        const std::vector<std::string> watched = db.Watched();
        if (args.positional.empty()) {
            const std::size_t n = watched.size();
            db.Unwatch(nullptr);
            Print("stopped " + std::to_string(n) + (n == 1 ? " watch" : " watches"));
            return;
        }
        const std::string& name = args.positional[0];
        if (std::find(watched.begin(), watched.end(), name) == watched.end())
            throw ToolError(kExitUsage, "unwatch: " + UnknownNameMessage("watch", name, ClosestNames(name, watched)));
        db.Unwatch(&name);
        Print("stopped watching " + Label(name));
    }

    void Wait(const Args& args) {
        ULONG timeout = kDefaultWaitMs;
        if (!args.positional.empty()) {
            const std::string& t = args.positional[0];
            if (t == "forever")
                timeout = INFINITE;
            else {
                char* end = nullptr;
                const unsigned long v = std::strtoul(t.c_str(), &end, 10);
                if (t.empty() || *end != '\0' || v >= INFINITE)
                    throw Usage(Get("wait"), "'" + t + "' is not a time in ms");
                timeout = static_cast<ULONG>(v);
            }
        }
        Target().Wait(timeout);
    }

    void Reset(const Args& args) {
        Backend& db = Target();
        if (args.positional.empty()) {
            db.Reset(nullptr);
            Print("reset the whole tree");
            return;
        }
        const Node node = db.Resolve(args.positional[0]);
        db.Reset(&node);
        Print("reset " + Label(node));
    }

    void Save(const Args& args) {
        Backend& db = Target();
        const Node node = db.Resolve(args.positional.size() > 1 ? args.positional[1] : std::string());
        db.Save(args.positional[0], node);
        Print("saved " + Label(node) + " to " + args.positional[0]);
    }

    void Load(const Args& args) {
        const Node node = Target().Load(args.positional[0]);
        Print("loaded " + args.positional[0] + " into " + Label(node));
    }

    void Suppress(const Args&) {
        LocalOnly("suppress");
        Db().Database()->SuppressNotifications();
        Print("notifications suppressed");
    }

    void Restart(const Args&) {
        LocalOnly("restart");
        Db().Database()->RestartNotifications();
        Print("notifications restarted");
    }

    void Stats(const Args&) {
        LocalOnly("stats");
        vorn::ComPtr<IDatabaseStatistics> statistics;
        SQueueStatistics figures{};
        const HRESULT hr = Db().Database()->QueryInterface(IID_IDatabaseStatistics, statistics.put_void());
        if (FAILED(hr) || FAILED(statistics->GetQueueStatistics(&figures)))
            throw ToolError(kExitFailure, "the database reports no queue statistics");
        Print("queue depth " + std::to_string(figures.udwDepth) + ", high-water mark " +
              std::to_string(figures.udwHighWater) + ", coalesced " + std::to_string(figures.uqwCoalesced) +
              ", backlog limit per sink " + std::to_string(figures.udwBacklogLimit));
    }

    void Quit(const Args&) { quit_ = true; }

    // The tables as the tree holds them after a load: the tool loads them
    // (OptionStateInfo.LoadNoiseFreqTables = true) unless the last load
    // succeeded.
    void Tables(const Args& args) {
        int index = -1;
        if (!args.positional.empty()) {
            const std::string& text = args.positional[0];
            char* end = nullptr;
            const long value = std::strtol(text.c_str(), &end, 10);
            if (text.empty() || *end != '\0' || value < 0 || value >= kNoiseTables)
                throw Usage(Get("tables"), "INDEX is a table from 0 to 15, not '" + text + "'");
            index = static_cast<int>(value);
        }
        Backend& db = Target();
        const Node load = db.Resolve("OptionStateInfo.LoadNoiseFreqTables");
        if (db.Read(load).value != "true") db.Write(load, "true");
        const auto value = [&](int table, int row, const char* member) {
            return db.Read(db.Resolve("NoiseFreqTable[" + std::to_string(table) + "].CarrierFreqOffset[" +
                                      std::to_string(row) + "]." + member));
        };
        const auto length = [&](int table) {
            int rows = 0;
            while (rows < kNoiseTableRows && value(table, rows, "Start").status == "valid") ++rows;
            return rows;
        };
        std::vector<std::vector<std::string>> lines;
        if (index < 0) {
            lines.push_back({"table", "family", "mode", "rows", "offsets"});
            for (int t = 0; t < kNoiseTables; ++t) {
                const int rows = length(t);
                lines.push_back({std::to_string(t), kTableFamilies[t / 4], kTableModes[t], std::to_string(rows),
                                 rows ? value(t, 0, "Start").value + " .. " + value(t, rows - 1, "Stop").value : ""});
            }
            PrintColumns(lines);
            return;
        }
        const int rows = length(index);
        Print("NoiseFreqTable[" + std::to_string(index) + "]: " + kTableFamilies[index / 4] + ", " +
              kTableModes[index] + ", " + std::to_string(rows) + " rows");
        lines.push_back({"row", "start", "stop", "RBW", "averages", "filter"});
        for (int r = 0; r < rows; ++r) {
            const Reading fft = value(index, r, "FFTFilter");
            lines.push_back({std::to_string(r), value(index, r, "Start").value, value(index, r, "Stop").value,
                             value(index, r, "RBW").value, value(index, r, "SweepCount").value,
                             fft.value == "true"    ? "FFT"
                             : fft.value == "false" ? "swept"
                                                    : fft.value});
        }
        PrintColumns(lines);
    }

private:
    static const Command* Find(const std::string& name) {
        for (const Command& c : Commands())
            if (name == c.name) return &c;
        if (name == "exit") return Find("quit");
        return nullptr;
    }

    static const Command& Get(const char* name) { return *Find(name); }

    static std::vector<std::string> CommandNames() {
        std::vector<std::string> names;
        for (const Command& c : Commands()) names.push_back(c.name);
        return names;
    }

    static std::string Overview() {
        std::string top, shell;
        for (const Command& c : Commands()) {
            std::string line = "  " + Pad(c.synopsis, 38) + c.summary + "\n";
            (c.where == Where::ShellOnly ? shell : top) += line;
        }
        std::string text(sizeof kOverview + top.size() + shell.size(), '\0');
        const int n = std::snprintf(text.data(), text.size(), kOverview, top.c_str(), shell.c_str());
        text.resize(static_cast<std::size_t>(n > 0 ? n : 0));
        return text;
    }

    static void PrintHelp(const Command& c) {
        PrintRaw(std::string("usage: vorndb ") + c.synopsis + "\n\n" + c.summary + ".\n\n" + c.details +
                 "\nSee 'vorndb help' for names, values and exit codes.\n");
    }

    static Args Parse(const Command& command, const std::vector<std::string>& words) {
        Args args;
        for (std::size_t i = 1; i < words.size(); ++i) {
            const std::string& w = words[i];
            if (w.size() > 2 && w.compare(0, 2, "--") == 0) {
                std::string name = w.substr(2);
                std::string value;
                const std::size_t eq = name.find('=');
                const bool inlineValue = eq != std::string::npos;
                if (inlineValue) {
                    value = name.substr(eq + 1);
                    name.erase(eq);
                }
                if (std::find(command.valueOptions.begin(), command.valueOptions.end(), name) !=
                    command.valueOptions.end()) {
                    if (!inlineValue) {
                        if (i + 1 == words.size()) throw Usage(command, "--" + name + " needs a value");
                        value = words[++i];
                    }
                    args.options[name] = value;
                } else if (!inlineValue && std::find(command.flagOptions.begin(), command.flagOptions.end(), name) !=
                                               command.flagOptions.end()) {
                    args.flags.insert(name);
                } else {
                    throw Usage(command, "unknown option '" + w + "'");
                }
            } else if (w.size() > 1 && w[0] == '-' &&
                       !(std::isdigit(static_cast<unsigned char>(w[1])) || w[1] == '.')) {
                throw Usage(command, "unknown option '" + w + "'");
            } else {
                args.positional.push_back(w);
            }
        }
        if (args.positional.size() < command.minArgs) throw Usage(command, "missing argument");
        if (args.positional.size() > command.maxArgs)
            throw Usage(command, "unexpected argument '" + args.positional[command.maxArgs] + "'");
        return args;
    }

    Session& Db() {
        if (!session_) {
            session_ = std::make_unique<Session>();
            // The shell watches: notifications are on from the start there.
            if (inShell_) session_->Database()->RestartNotifications();
        }
        return *session_;
    }

    // The database the commands talk to: the tool's own, or the daemon's
    // with --remote (connected on first use).
    Backend& Target() {
        if (!target_) target_ = remote_ ? ConnectRemote(*remote_) : MakeLocalBackend(Db());
        return *target_;
    }

    // Commands on the notification machinery of the tool's own database.
    void LocalOnly(const char* command) const {
        if (remote_)
            throw ToolError(kExitUsage, std::string(command) +
                                            ": only for the tool's own database, not with --remote (the daemon's "
                                            "notifications are its own)");
    }

    // With --settings FILE: the file loaded into the node its record names.
    Node LoadSettingsOption(const Args& args) {
        const std::string* settings = args.Option("settings");
        if (!settings) return {};
        if (remote_)
            throw ToolError(kExitUsage,
                            "--settings is not used with --remote: it would load the file into the daemon's "
                            "database; use 'load FILE' and 'save FILE' in 'vorndb run'");
        if (inShell_)
            throw ToolError(kExitUsage, "--settings is not used in the shell: use 'load FILE' and 'save FILE'");
        return Db().LoadSettings(*settings);
    }

    static DecodedStream DecodeChecked(const std::string& path) {
        DecodedStream stream = DecodeStream(ReadFileBytes(path));
        if (!stream.ok)
            throw ToolError(kExitFile, path + ": first bad byte at offset " + OffsetText(stream.badOffset) + ": " +
                                           stream.error + " ('vorndb dump " + path + "' shows the records)");
        return stream;
    }

    void PrintType(const TypeDescription& type) {
        std::string head = std::string(TypeKindName(type.kind)) + " " + type.name;
        if (type.kind == TKIND_INTERFACE && !type.base.empty()) head += " : " + type.base;
        Print(head);
        if (type.kind != TKIND_ENUM)
            Print(std::string(type.kind == TKIND_COCLASS ? "  clsid " : "  iid   ") + GuidText(type.guid));
        if (type.kind == TKIND_COCLASS && !type.base.empty()) Print("  default interface " + type.base);
        if (!type.doc.empty()) Print("  doc   " + type.doc);
        if (type.kind == TKIND_ENUM) {
            std::size_t width = 0;
            for (const TypeMember& m : type.members) width = std::max(width, m.name.size());
            Print("  " + std::to_string(type.members.size()) + " members:");
            for (const TypeMember& m : type.members) Print("    " + Pad(m.name, width) + std::to_string(m.value));
            return;
        }
        if (type.kind != TKIND_INTERFACE) return;
        if (type.members.empty()) {
            Print("  members: none in the type library (declared in the C++ headers)");
            return;
        }
        std::vector<Row> rows;
        rows.push_back({"    dispid", "member", "returns", "doc", ""});
        for (const TypeMember& m : type.members)
            rows.push_back({"    " + std::to_string(m.id), m.name + (m.indexed ? "[]" : ""), m.target, m.doc, ""});
        Print("  " + std::to_string(type.members.size()) + " members:");
        PrintRows(rows);
    }

    // Runs the lines of a shell or script. `stopOnError`: the first failure
    // ends the run with its code (scripts); otherwise the status is the last
    // command's (the shell). `source` prefixes error messages with
    // "SOURCE:LINE: " when not empty.
    int RunLines(LineReader& reader, const std::string& source, bool stopOnError, bool plain = false) {
        int status = kExitOk;
        std::string line;
        std::size_t number = 0;
        const std::string prompt = !plain && reader.Editing() ? "vorndb> " : "";
        while (!quit_ && reader.Read(prompt, &line)) {
            ++number;
            try {
                Execute(SplitWords(line));
                status = kExitOk;
            } catch (const ToolError& e) {
                status = e.code();
                const std::string where = source.empty() ? "" : source + ":" + std::to_string(number) + ": ";
                // An empty message comes from a nested script that already reported.
                if (*e.what()) PrintError("vorndb: " + where + e.what());
                if (stopOnError) return status;
            } catch (const std::exception& e) {
                status = kExitFailure;
                PrintError(std::string("vorndb: ") + e.what());
                if (stopOnError) return status;
            }
        }
        return status;
    }

    // Gives queued notifications a moment to arrive, then stops every watch.
    void FinishWatches() {
        if (target_) target_->Finish(kFinalWaitMs);
    }

    std::optional<RemoteOptions> remote_;
    std::unique_ptr<Session> session_;
    std::unique_ptr<Backend> target_;  // after session_: the local one refers to it
    bool inShell_ = false;
    bool quit_ = false;
    int depth_ = 0;
    int status_ = kExitOk;
};

const std::vector<Command>& Commands() {
    static const std::vector<Command> commands = {
        {"tree",
         "tree [NAME] [--depth N] [--settings FILE]",
         "the tree from a node down, one line per node",
         "Prints NAME (default: the whole tree below the root) and every node below it,\n"
         "one line each, indented by level: the node's name, its value family (group,\n"
         "boolean, integer, real, string, int-array, real-array, buffer), its value with\n"
         "its unit (\"1.5 MHz\", \"-30 dBm\", an enumeration as \"eMEMBER (n)\", at most 8\n"
         "array elements), its status (valid/invalid) and its limits (\"[20 Hz .. 50 GHz]\",\n"
         "an array's \"size N of CAPACITY\"). A group shows its number of children.\n"
         "\n"
         "  --depth N         only N levels below NAME (0: NAME alone; for the root, 1\n"
         "                    lists its twenty groups)\n"
         "  --settings FILE   load the settings file first (see 'vorndb help set')\n"
         "\n"
         "Example: vorndb tree UserSettings.PhaseNoiseSettings --depth 1\n",
         {"depth", "settings"},
         {},
         0,
         1,
         Where::Anywhere,
         &Tool::Tree},
        {"get",
         "get NAME... [--settings FILE]",
         "print values as NAME = VALUE",
         "Prints each NAME as \"NAME = VALUE\"; for a group, every parameter below it.\n"
         "Values are formatted as in 'tree' but with every array element; an invalid\n"
         "parameter prints \"<invalid>\".\n"
         "\n"
         "  --settings FILE   load the settings file first (see 'vorndb help set')\n"
         "\n"
         "Example: vorndb get UserSettings.PhaseNoiseSettings.SignalFreq\n",
         {"settings"},
         {},
         1,
         SIZE_MAX,
         Where::Anywhere,
         &Tool::GetValues},
        {"set",
         "set NAME=VALUE... [--settings FILE]",
         "write values, then print them as read back",
         "Writes each VALUE to its parameter in order, then prints every parameter as\n"
         "\"NAME = VALUE\" as read back (\" (unchanged)\" when the value was already set).\n"
         "All names are checked before anything is written. A value the parameter refuses\n"
         "stops the command with the HRESULT's meaning and the parameter's limits (exit 4).\n"
         "VALUE is read by the parameter's family: reals with unit and prefix (10 kHz),\n"
         "enumerations by member name or number, booleans, strings, comma lists for arrays.\n"
         "Quote values with blanks: vorndb set 'UserSettings.PhaseNoiseSettings.SignalFreq=10 kHz'\n"
         "\n"
         "  --settings FILE   load FILE (a settings stream, as 'save' writes it) into the\n"
         "                    node its top record names, apply the values and save that\n"
         "                    node back to FILE: through a temporary file that replaces\n"
         "                    FILE only when everything succeeded. Without it the values\n"
         "                    go to a fresh database and are lost when the command ends.\n",
         {"settings"},
         {},
         1,
         SIZE_MAX,
         Where::Anywhere,
         &Tool::SetValues},
        {"export",
         "export FILE [--spurs] [--commas] [--no-header] [--all-traces] [--settings SETTINGS]",
         "write the trace or spur export file",
         "Sets the export controls of OtherSettings and assigns OtherSettings.ExportedTrace,\n"
         "which writes FILE (a path as the database takes it: \"D:\\User\\a.csv\" or a Linux\n"
         "path). The file replaces an existing one only when complete. A failure prints\n"
         "the database's reason (exit 5).\n"
         "\n"
         "  --spurs           the spur list instead of the traces\n"
         "  --commas          decimal commas: every '.' of the file becomes ','\n"
         "  --no-header       no header sections before the data\n"
         "  --all-traces      all eight traces instead of the selected one\n"
         "  --settings FILE   load the settings file first (see 'vorndb help set')\n"
         "\n"
         "Example: vorndb export /tmp/trace.csv --settings measurement.vds --all-traces\n",
         {"settings"},
         {"spurs", "commas", "no-header", "all-traces"},
         1,
         1,
         Where::Anywhere,
         &Tool::ExportData},
        {"describe",
         "describe NAME|INTERFACE|ENUM",
         "what the type library says about a node or a type",
         "For an interface (IPhaseNoiseSettings, IRoot): its base, IID and members with\n"
         "their dispatch identifiers, returned interfaces and documentation. For an\n"
         "enumeration (eUNIT): its members and values. For a full name of the tree: the\n"
         "member that declares it (interface, dispatch identifier, documentation), its\n"
         "value and limits, and its enumeration's members or its group interface.\n"
         "\n"
         "Example: vorndb describe UserSettings.PhaseNoiseSettings.RbwToVbw\n",
         {},
         {},
         1,
         1,
         Where::Anywhere,
         &Tool::Describe},
        {"dump",
         "dump FILE [--json] [--all]",
         "decode a settings stream file record by record",
         "Decodes FILE without the schema: the stream mark, then every record with its\n"
         "offset, name, size, type code and kind (codes 4 and 6 with stored limits are\n"
         "recognised by their size), status and value. Decoding stops at the first\n"
         "inconsistency; what was decoded is printed and the first bad byte is reported\n"
         "with its offset (exit 5). Bytes after the stream's record are reported but are\n"
         "not an error. Needs no database.\n"
         "\n"
         "  --json   one JSON document with every value and the error, if any\n"
         "  --all    every array element (default: the first 8)\n",
         {},
         {"json", "all"},
         1,
         1,
         Where::Anywhere,
         &Tool::Dump},
        {"lines",
         "lines DIR",
         "the limit-line and transducer-factor files of a directory",
         "Lists the .lin (limit line) and .tdf (transducer factor) files of DIR in name\n"
         "order: file, the index of the line or factor it holds, its Exists, PointCount\n"
         "and Name. Such a file is the word 0x5001, the index (below 100) and the\n"
         "member's settings record (Line[i] or Factor[i]), decoded as 'dump' decodes. A\n"
         "damaged file is listed with the offset of its first bad byte and the reason;\n"
         "the exit status is then 5. Needs no database.\n",
         {},
         {},
         1,
         1,
         Where::Anywhere,
         &Tool::Lines},
        {"diff",
         "diff A B",
         "compare two settings files by full name",
         "Decodes both files (as 'dump') and compares their parameters by full name\n"
         "below the top record: \"- NAME = VALUE\" only in A, \"+ NAME = VALUE\" only in B,\n"
         "\"~ NAME: VALUE_A -> VALUE_B\" changed (value, status, unit or limits). Exit 0\n"
         "when they are equal, 6 when they differ, 5 when a file is unreadable or\n"
         "damaged. Needs no database.\n",
         {},
         {},
         2,
         2,
         Where::Anywhere,
         &Tool::Diff},
        {"tables",
         "tables [INDEX]",
         "the built-in noise frequency tables",
         "Without INDEX: the sixteen tables, one line each: index, measurement family,\n"
         "speed mode, number of rows and the offsets they span. With INDEX (0 to 15):\n"
         "that table's rows with their start and stop offsets, resolution bandwidth,\n"
         "number of averages and filter (FFT or swept), as the tree holds them. The\n"
         "tables are loaded first (OptionStateInfo.LoadNoiseFreqTables = true) unless\n"
         "the last load succeeded; a load that fails is reported with its reason (exit 4).\n"
         "\n"
         "Example: vorndb tables 0\n",
         {},
         {},
         0,
         1,
         Where::Anywhere,
         &Tool::Tables},
        {"shell",
         "shell",
         "run commands interactively or from standard input",
         "Reads commands line by line: on a terminal with libedit's emacs key bindings,\n"
         "Tab completion of commands, names, enumeration members and files, and a history\n"
         "kept in $XDG_STATE_HOME/vorndb/history (Ctrl-D leaves); plainly otherwise. Every\n"
         "command of the tool works (without 'vorndb'), plus watch, unwatch, wait, reset,\n"
         "save, load, suppress, restart, stats, help and quit. A\n"
         "failing command prints its error and the shell goes on; the exit status is that\n"
         "of the last command. Words are split as a POSIX shell does ('...', \"...\",\n"
         "backslash); '#' starts a comment. Notifications are on from the start.\n",
         {},
         {},
         0,
         0,
         Where::TopOnly,
         &Tool::Shell},
        {"run",
         "run SCRIPT",
         "run the commands of a file ('-': standard input)",
         "Runs SCRIPT's lines as the shell does, but stops at the first failing command\n"
         "with its exit status and \"SCRIPT:LINE:\" before its message. Blank lines and\n"
         "lines starting with '#' are skipped. Scripts may run scripts.\n",
         {},
         {},
         1,
         1,
         Where::TopOnly,
         &Tool::Run},
        {"help",
         "help [COMMAND]",
         "this overview, or a command's help",
         "Without COMMAND: the commands, how names and values are written, the exit\n"
         "codes and the environment. With COMMAND: that command's help, as\n"
         "'vorndb COMMAND --help' prints it.\n",
         {},
         {},
         0,
         1,
         Where::Anywhere,
         &Tool::Help},
        {"watch",
         "watch NAME",
         "print every change at or below NAME",
         "Registers a queued notification sink on NAME (a parameter or a group). The\n"
         "notification thread then prints \"watch: FULLNAME = VALUE\" for every change of\n"
         "NAME or any node below it: the changed object's full name and its value. Use\n"
         "'wait' to let pending notifications arrive before the next command.\n",
         {},
         {},
         1,
         1,
         Where::ShellOnly,
         &Tool::Watch},
        {"unwatch",
         "unwatch [NAME]",
         "stop watching NAME (or everything)",
         "Unregisters the sink of 'watch NAME'; without NAME, every sink. Pending\n"
         "notifications of the sink are dropped.\n",
         {},
         {},
         0,
         1,
         Where::ShellOnly,
         &Tool::Unwatch},
        {"wait",
         "wait [MS|forever]",
         "wait until queued notifications are delivered",
         "Waits until every notification queued before the command has been delivered\n"
         "(IDatabase::WaitForNotifications), at most MS milliseconds (default 10000).\n"
         "Exit 1 when they are still pending then.\n",
         {},
         {},
         0,
         1,
         Where::ShellOnly,
         &Tool::Wait},
        {"reset",
         "reset [NAME]",
         "back to the defaults (the whole tree, or NAME)",
         "Without NAME: IDatabase::Reset, every node back to its default. With NAME: that\n"
         "node (a group: everything below it) back to its defaults, and the nodes that\n"
         "depend on it told (IDatabaseObject::ResetPutValue).\n",
         {},
         {},
         0,
         1,
         Where::ShellOnly,
         &Tool::Reset},
        {"save",
         "save FILE [NAME]",
         "save the tree (or NAME) into a settings file",
         "Saves the root (or NAME and everything below it) as a settings stream into FILE,\n"
         "through a temporary file that replaces FILE only when complete.\n",
         {},
         {},
         1,
         2,
         Where::ShellOnly,
         &Tool::Save},
        {"load",
         "load FILE",
         "load a settings file",
         "Loads FILE into the node its top record names: the root for a file saved from\n"
         "the root, else the one node of the tree with that name. A damaged file is\n"
         "refused before anything is loaded (exit 5; 'dump FILE' shows where).\n",
         {},
         {},
         1,
         1,
         Where::ShellOnly,
         &Tool::Load},
        {"suppress",
         "suppress",
         "stop delivering notifications",
         "IDatabase::SuppressNotifications: queued notifications are dropped instead of\n"
         "delivered until 'restart'.\n",
         {},
         {},
         0,
         0,
         Where::ShellOnly,
         &Tool::Suppress},
        {"restart",
         "restart",
         "deliver notifications again",
         "IDatabase::RestartNotifications: notifications are delivered again.\n",
         {},
         {},
         0,
         0,
         Where::ShellOnly,
         &Tool::Restart},
        {"stats",
         "stats",
         "show the notification queue's figures",
         "Prints the records queued now, the most queued at once, how many records of\n"
         "sinks past their backlog limit were coalesced, and that limit.\n",
         {},
         {},
         0,
         0,
         Where::ShellOnly,
         &Tool::Stats},
        {"quit",
         "quit",
         "leave the shell or script (also 'exit')",
         "Ends the shell or the script.\n",
         {},
         {},
         0,
         0,
         Where::ShellOnly,
         &Tool::Quit},
    };
    return commands;
}

}  // namespace

std::vector<std::string> SplitWords(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    bool inWord = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            if (inWord) words.push_back(word);
            word.clear();
            inWord = false;
        } else if (c == '#' && !inWord) {
            break;
        } else if (c == '\'') {
            const std::size_t end = line.find('\'', i + 1);
            if (end == std::string::npos) throw ToolError(kExitUsage, "unterminated ' quote");
            word += line.substr(i + 1, end - i - 1);
            inWord = true;
            i = end;
        } else if (c == '"') {
            inWord = true;
            for (++i;; ++i) {
                if (i >= line.size()) throw ToolError(kExitUsage, "unterminated \" quote");
                if (line[i] == '"') break;
                if (line[i] == '\\' && i + 1 < line.size() && (line[i + 1] == '"' || line[i + 1] == '\\')) ++i;
                word += line[i];
            }
        } else if (c == '\\') {
            if (i + 1 < line.size()) word += line[++i];
            inWord = true;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord) words.push_back(word);
    return words;
}

namespace {

// Takes the options before the command off `words`: --remote[=bus|socket],
// --address ADDRESS, --session, --system, --socket PATH. The bus and socket
// options alone imply --remote (the socket with --socket). Throws
// ToolError(kExitUsage).
std::optional<RemoteOptions> ParseRemoteOptions(std::vector<std::string>& words) {
    RemoteOptions options;
    bool remote = false, pathGiven = false, busGiven = false, socketGiven = false;
    std::size_t i = 0;
    const auto value = [&](const std::string& option) {
        if (i + 1 >= words.size()) throw ToolError(kExitUsage, option + " needs a value");
        return words[++i];
    };
    for (; i < words.size() && words[i].rfind("--", 0) == 0 && words[i] != "--help" && words[i] != "--version"; ++i) {
        const std::string& w = words[i];
        if (w == "--remote" || w == "--remote=bus" || w == "--remote=socket") {
            remote = true;
            if (w != "--remote") {
                pathGiven = true;
                options.path = w == "--remote=bus" ? RemoteOptions::Path::Bus : RemoteOptions::Path::Socket;
            }
        } else if (w.rfind("--remote=", 0) == 0) {
            throw ToolError(kExitUsage, "--remote takes bus or socket, not '" + w.substr(9) + "'");
        } else if (w == "--address") {
            options.bus = RemoteOptions::Bus::Address;
            options.address = value(w);
            busGiven = true;
        } else if (w == "--session" || w == "--system") {
            options.bus = w == "--session" ? RemoteOptions::Bus::Session : RemoteOptions::Bus::System;
            busGiven = true;
        } else if (w == "--socket") {
            options.socket = value(w);
            socketGiven = true;
        } else {
            throw ToolError(kExitUsage, "unknown option '" + w + "' ('vorndb --help' lists the options)");
        }
    }
    words.erase(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(i));
    if (!remote && !busGiven && !socketGiven) return std::nullopt;
    if (!pathGiven) options.path = socketGiven && !busGiven ? RemoteOptions::Path::Socket : RemoteOptions::Path::Bus;
    if (options.path == RemoteOptions::Path::Socket && busGiven)
        throw ToolError(kExitUsage, "--address, --session and --system choose a bus, not the direct socket");
    if (options.path == RemoteOptions::Path::Bus && socketGiven)
        throw ToolError(kExitUsage, "--socket names the direct socket: use it with --remote=socket");
    if (words.empty()) throw ToolError(kExitUsage, "usage: vorndb [--remote[=bus|socket] ...] COMMAND [ARGUMENTS]");
    return options;
}

}  // namespace

int Main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    if (words.empty()) {
        PrintError("usage: vorndb COMMAND [ARGUMENTS]  ('vorndb --help' lists the commands)");
        return kExitUsage;
    }
    if (words[0] == "--version") {
        Print("vorndb " VORNDB_VERSION);
        return kExitOk;
    }
    try {
        std::optional<RemoteOptions> remote = ParseRemoteOptions(words);
        if (words[0] == "--help" || words[0] == "-h") words[0] = "help";
        Tool tool(remote);
        tool.Execute(words);
        return tool.status();
    } catch (const ToolError& e) {
        if (*e.what()) PrintError(std::string("vorndb: ") + e.what());
        return e.code();
    } catch (const std::exception& e) {
        PrintError(std::string("vorndb: ") + e.what());
        return kExitFailure;
    }
}

}  // namespace vorndb
