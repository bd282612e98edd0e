"""python3 -m vorndb [--system|--session|--address ADDRESS [--peer]] COMMAND ...

    get NAME...              NAME = VALUE per parameter (every parameter below a group)
    set NAME=VALUE...        writes in order, prints the values as read back
    describe NAME...         the daemon's description, one `Key: value` a line
    list [NAME] [--depth N]  `NAME family` of the nodes below NAME (N levels, 0: all)
    tree [NAME]              every node below NAME, indented by level
    reset [NAME]             resets the node (the whole database without NAME)
    watch NAME... [--count N]  NAME = VALUE now and at every change, until
                             interrupted or N changes were printed

Prints as the vorndb tool does (docs/tool.md), ` (unchanged)` when a write or
reset changed nothing. `watch` prints the typed values the daemon sends
(reals in the parameter's unit, without prefix; `<invalid>` for an invalid
value). Errors go to standard error as `vorndb: MESSAGE`; exit codes 1 (other
failure), 2 (usage), 3 (unknown name), 4 (value rejected), 130 (interrupted).
"""

import argparse
import sys

from ._client import VorndbError, connect

REJECTED = {"InvalidValue", "InvalidArgument", "WrongType", "TooLarge", "InvalidData"}


def _exit_code(error):
    if error.short_name == "UnknownName":
        return 3
    if error.short_name in REJECTED:
        return 4
    return 1


def _print_values(db, name):
    if db.family(name) != "group":
        print("%s = %s" % (name, db.text(name)[0]))
        return
    for full, family in db.list(name, 0):
        if family != "group":
            print("%s = %s" % (full, db.text(full)[0]))


def _get(db, args):
    for name in args.names:
        db.family(name)  # every name resolved before anything is printed
    for name in args.names:
        _print_values(db, name)
    return 0


def _set(db, args):
    report = []
    for name, value in args.pairs:
        try:
            changed = db.set(name, value)
        except VorndbError as e:
            if e.short_name == "UnknownName":
                raise
            limits = ""
            try:
                limits = db.text(name)[2]
            except VorndbError:
                pass
            print("vorndb: %s: value '%s' rejected: %s: %s%s" %
                  (name, value, e.short_name, e.reason, "; limits " + limits if limits else ""), file=sys.stderr)
            return _exit_code(e)
        report.append("%s = %s%s" % (name, db.text(name)[0], "" if changed else " (unchanged)"))
    for line in report:
        print(line)
    return 0


def _describe(db, args):
    described = [db.describe(name) for name in args.names]
    for i, fields in enumerate(described):
        if i:
            print()
        for key, value in fields.items():
            if key == "Members":
                value = ", ".join("%s (%d)" % member for member in value)
            print("%s: %s" % (key, value))
    return 0


def _list(db, args):
    for name, family in db.list(args.name, args.depth):
        print("%s %s" % (name, family))
    return 0


def _tree(db, args):
    nodes = db.list(args.name, 0)
    families = dict(nodes)
    children = {}
    for name, _ in nodes:
        children.setdefault(name.rpartition(".")[0], []).append(name)
    stack = [(name, 0) for name in reversed(children.get(args.name, []))]
    while stack:
        name, level = stack.pop()
        print("%s%s %s" % ("  " * level, name.rpartition(".")[2], families[name]))
        stack.extend((child, level + 1) for child in reversed(children.get(name, [])))
    return 0


def _reset(db, args):
    changed = db.reset(args.name)
    print("%s reset%s" % (args.name or "database", "" if changed else " (unchanged)"))
    return 0


def _watch(db, args):
    left = [None]  # None while the current values are printed

    def changed(name, value):
        if left[0] is not None and args.count:
            if left[0] <= 0:
                return
            left[0] -= 1
        print("%s = %s" % (name, "<invalid>" if value is None else value), flush=True)

    db.watch(args.names, changed)
    left[0] = args.count
    db.wait_for(lambda: args.count and left[0] <= 0)
    return 0


COMMANDS = {"get": _get, "set": _set, "describe": _describe, "list": _list, "tree": _tree, "reset": _reset,
            "watch": _watch}


def main(argv=None):
    parser = argparse.ArgumentParser(prog="vorndb", description="client of vorndbd over D-Bus")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--system", action="store_const", const="system", dest="bus", help="the system bus (default)")
    where.add_argument("--session", action="store_const", const="session", dest="bus", help="the session bus")
    where.add_argument("--address", help="the bus at ADDRESS (unix:path=...)")
    parser.add_argument("--peer", action="store_true", help="ADDRESS is the daemon's direct socket, not a bus")
    commands = parser.add_subparsers(dest="command", required=True)
    get = commands.add_parser("get", help="NAME = VALUE for each parameter; for a group every parameter below it")
    get.add_argument("names", nargs="+", metavar="NAME")
    put = commands.add_parser("set", help="writes NAME=VALUE in order, then prints them as read back")
    put.add_argument("pairs", nargs="+", metavar="NAME=VALUE")
    describe = commands.add_parser("describe", help="the daemon's description of each node")
    describe.add_argument("names", nargs="+", metavar="NAME")
    listing = commands.add_parser("list", help="NAME family of the nodes below NAME")
    listing.add_argument("name", nargs="?", default="", metavar="NAME")
    listing.add_argument("--depth", type=int, default=1, help="levels below NAME (0: all; default 1)")
    tree = commands.add_parser("tree", help="every node below NAME, indented by level")
    tree.add_argument("name", nargs="?", default="", metavar="NAME")
    reset = commands.add_parser("reset", help="resets NAME (without NAME: the whole database)")
    reset.add_argument("name", nargs="?", default="", metavar="NAME")
    watch = commands.add_parser("watch", help="prints each NAME = VALUE now and at every change")
    watch.add_argument("names", nargs="+", metavar="NAME")
    watch.add_argument("--count", type=int, default=0, help="stop after N changes (default: until interrupted)")
    args = parser.parse_args(argv)
    if args.peer and not args.address:
        parser.error("--peer needs --address")
    if args.command == "list" and args.depth < 0:
        parser.error("--depth %d: not a depth (0: all levels)" % args.depth)

    if args.command == "set":
        pairs = []
        for word in args.pairs:
            name, eq, value = word.partition("=")
            if not eq or not name:
                parser.error("'%s' is not NAME=VALUE" % word)
            pairs.append((name, value))
        args.pairs = pairs

    try:
        db = connect(bus=args.bus or "system", address=args.address, peer=args.peer)
    except VorndbError as e:
        print("vorndb: cannot connect: %s" % e, file=sys.stderr)
        return 1
    with db:
        try:
            return COMMANDS[args.command](db, args)
        except VorndbError as e:
            print("vorndb: %s" % (e.reason if e.short_name == "UnknownName" else e), file=sys.stderr)
            return _exit_code(e)
        except KeyboardInterrupt:
            return 130


if __name__ == "__main__":
    sys.exit(main())
