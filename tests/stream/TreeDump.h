// The whole tree of a database object as text, walked over the schema
// metadata: one line per parameter with everything a settings stream keeps
// (status, value, limits, unit, array contents, buffer shape and samples), so
// that two trees compare node by node. Also a way to change every parameter
// of a tree away from its defaults, for the round trip of the whole tree.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vorn/buffer.h"
#include "vorn/vorndb.h"

namespace persist_test {

// "<full name>: <family> status=<s> ..." for every parameter, in tree order.
// Doubles are written with their bits, so equal lines mean equal values.
std::vector<std::string> DumpTree(IDatabase* db);

// Moves every parameter but those of CParameterNoLoadSave off its defaults
// through the client interfaces, without file actions or dependency
// propagation: new limits on the settings with a value beyond the old ones,
// other values, other units for the plain reals that stay valid, arrays of a
// few elements (one trace of 102400), every ninth parameter invalid, buffers
// attached (kept in `buffers`, which must outlive the database). Returns the
// number of parameters changed.
std::size_t ChangeEveryValue(IDatabase* db, std::vector<std::unique_ptr<CBuffer<float, 4>>>& buffers);

}  // namespace persist_test
