"""python3 -m vorndb [--system|--session|--address ADDRESS [--peer]] get NAME... | set NAME=VALUE...

Prints as the vorndb tool does (docs/tool.md): `NAME = VALUE` per parameter
(every parameter below a group), `set` the values as read back with
` (unchanged)` when a write changed nothing. Errors go to standard error as
`vorndb: MESSAGE`; exit codes 1 (other failure), 2 (usage), 3 (unknown
name), 4 (value rejected).
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
    args = parser.parse_args(argv)
    if args.peer and not args.address:
        parser.error("--peer needs --address")

    pairs = []
    if args.command == "set":
        for word in args.pairs:
            name, eq, value = word.partition("=")
            if not eq or not name:
                parser.error("'%s' is not NAME=VALUE" % word)
            pairs.append((name, value))

    try:
        db = connect(bus=args.bus or "system", address=args.address, peer=args.peer)
    except VorndbError as e:
        print("vorndb: cannot connect: %s" % e, file=sys.stderr)
        return 1
    with db:
        try:
            if args.command == "get":
                for name in args.names:
                    db.family(name)  # every name resolved before anything is printed
                for name in args.names:
                    _print_values(db, name)
                return 0
            report = []
            for name, value in pairs:
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
                          (name, value, e.short_name, e.reason, "; limits " + limits if limits else ""),
                          file=sys.stderr)
                    return _exit_code(e)
                report.append("%s = %s%s" % (name, db.text(name)[0], "" if changed else " (unchanged)"))
            for line in report:
                print(line)
            return 0
        except VorndbError as e:
            print("vorndb: %s" % (e.reason if e.short_name == "UnknownName" else e), file=sys.stderr)
            return _exit_code(e)


if __name__ == "__main__":
    sys.exit(main())
