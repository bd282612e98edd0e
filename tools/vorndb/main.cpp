// vorndb: the command-line client of the database component. Everything is in
// the vorndb_cli library (Commands.h), which the tool's tests link too.
#include "Commands.h"

int main(int argc, char** argv) { return vorndb::Main(argc, argv); }
