#!/usr/bin/env python3
"""Writes camctl(1) and camctl's bash completion from the tool's own help.

    gen_man.py CAMCTL VERSION MAN_OUT COMPLETION_OUT

`camctl --help` gives the synopsis, the description, the commands and the
"section:" blocks (options, environment, exit codes); `camctl COMMAND --help`
gives each command's synopsis, text and options. Nothing is written here
that the help does not say, so the two cannot drift apart.
"""
import re
import subprocess
import sys

ENTRY = re.compile(r"^  (\S.*?)(?:\s{2,}(\S.*))?$")  # "  TERM   text"
CONTINUATION = re.compile(r"^\s{4,}(\S.*)$")
SECTION = re.compile(r"^([a-z][a-z ]*):$")            # "options:"


def help_of(camctl, *args):
    return subprocess.run([camctl, *args, "--help"], check=True, capture_output=True,
                          text=True).stdout


def parse(text):
    """Help text -> (usage, blocks); a block is ("para", lines) or
    (section title, [(term, text)])."""
    lines = text.rstrip("\n").split("\n")
    usage = lines[0][len("usage: "):]
    blocks, i = [], 1
    while i < len(lines):
        line = lines[i]
        m = SECTION.match(line)
        if m:
            entries = []
            i += 1
            while i < len(lines) and lines[i].startswith("  "):
                c = CONTINUATION.match(lines[i])
                if c and entries and len(lines[i]) - len(lines[i].lstrip()) > 4:
                    entries[-1] = (entries[-1][0], entries[-1][1] + " " + c.group(1))
                else:
                    e = ENTRY.match(lines[i])
                    entries.append((e.group(1), e.group(2) or ""))
                i += 1
            blocks.append((m.group(1), entries))
        elif line.strip():
            para = []
            while i < len(lines) and lines[i].strip() and not SECTION.match(lines[i]):
                para.append(lines[i].strip())
                i += 1
            blocks.append(("para", para))
        else:
            i += 1
    return usage, blocks


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text[:1] in (".", "'") else text


def bold_options(text):
    """--opt and -x in bold, the rest as is."""
    return re.sub(r"(?<![\w\\])(\\-\\-?[\w\\-]+)", r"\\fB\1\\fR", roff(text))


def entries_roff(entries):
    out = []
    for term, text in entries:
        out += [".TP", bold_options(term), roff(text)]
    return out


def options_of(entries):
    """Options of the entries: [(name, value or None)]."""
    opts = []
    for term, _ in entries:
        for part in term.split(", "):
            words = part.split()
            if words and words[0].startswith("-"):
                opts.append((words[0], words[1] if len(words) > 1 else None))
    return opts


def man_page(version, top, commands):
    usage, blocks = top
    out = ['.TH CAMCTL 1 "" "camctl %s" "User Commands"' % version, ".SH NAME"]
    out.append("camctl \\- command-line host of the Camctl IP camera library")
    out += [".SH SYNOPSIS", ".B camctl", roff(usage.split(" ", 1)[1]), ".br",
            ".B camctl", "COMMAND \\fB\\-\\-help\\fR", ".SH DESCRIPTION"]
    sections = []
    for title, body in blocks:
        if title == "para":
            out += [".PP"] + [roff(l) for l in body]
        elif title == "commands":
            out += [".PP", "Commands (each is described under COMMANDS below):"]
            out += entries_roff(body)
        else:
            sections.append((title, body))
    out.append(".SH COMMANDS")
    for name, (cmd_usage, cmd_blocks) in commands:
        out += [".SS " + '"' + roff(cmd_usage) + '"']
        for title, body in cmd_blocks:
            if title == "para":
                out += [".PP"] + [roff(l) for l in body]
            else:
                out += [".PP", roff(title.capitalize()) + ":", ".RS"] + entries_roff(body) + [".RE"]
    for title, body in sections:
        heading = {"options for every command": "OPTIONS", "exit codes": "EXIT STATUS"}.get(title, title.upper())
        out += ['.SH "%s"' % heading] + entries_roff(body)
    out += [".SH SEE ALSO", "docs/CLI.md in the source tree, installed as",
            "/usr/share/doc/camctl/CLI.md."]
    return "\n".join(out) + "\n"


def completion(top, commands):
    _, blocks = top
    names = [name for name, _ in commands]
    common = options_of(dict(blocks)["options for every command"])
    lines = [
        "# bash completion for camctl, generated from its --help.",
        "_camctl() {",
        '    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} cmd="" i',
        "    for ((i = 1; i < COMP_CWORD; i++)); do",
        "        case ${COMP_WORDS[i]} in",
        "            %s) cmd=${COMP_WORDS[i]}; break ;;" % "|".join(names),
        "        esac",
        "    done",
    ]
    every = [(o, v) for name, (_, b) in commands for title, e in b if title != "para"
             for o, v in options_of(e)] + common
    dirs = sorted({o for o, v in every if v and "DIR" in v})
    files = sorted({o for o, v in every if v and "FILE" in v})
    valued = sorted({o for o, v in every if v} - set(dirs) - set(files))
    lines += ["    case $prev in"]
    if dirs:
        lines.append('        %s) COMPREPLY=($(compgen -d -- "$cur")); return ;;' % "|".join(dirs))
    if files:
        lines.append('        %s) COMPREPLY=($(compgen -f -- "$cur")); return ;;' % "|".join(files))
    if valued:
        lines.append("        %s) return ;;" % "|".join(valued))
    lines += ["    esac", '    local opts="%s"' % " ".join(o for o, _ in common), "    case $cmd in"]
    lines.append('        "") COMPREPLY=($(compgen -W "%s $opts" -- "$cur")); return ;;' % " ".join(names))
    for name, (_, b) in commands:
        opts = [o for title, e in b if title != "para" for o, _ in options_of(e)]
        lines.append('        %s) opts+=" %s" ;;' % (name, " ".join(o for o in opts if o not in dict(common))))
    lines += [
        "    esac",
        "    if [[ $cur == -* ]]; then",
        '        COMPREPLY=($(compgen -W "$opts" -- "$cur"))',
        "    else",
        '        COMPREPLY=($(compgen -f -- "$cur"))',
        "    fi",
        "}",
        "complete -F _camctl camctl",
    ]
    return "\n".join(lines) + "\n"


def main():
    camctl, version, man_out, completion_out = sys.argv[1:5]
    top = parse(help_of(camctl))
    names = [term.split()[0] for term, _ in dict(top[1])["commands"]]
    commands = [(n, parse(help_of(camctl, n))) for n in names]
    with open(man_out, "w") as f:
        f.write(man_page(version, top, commands))
    with open(completion_out, "w") as f:
        f.write(completion(top, commands))


if __name__ == "__main__":
    main()
