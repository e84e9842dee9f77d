// vns_check: walks every namespace record (VNS_DB_OBJ ... VNS_DB_VIEW) and checks the invariants that
// tvr_db_vns.h promises between transactions. Used by the tests after each step and by the database
// checker of the dump tool.
//
// Runs inside a transaction (a read one suffices) and moves the engine's positions freely. Reads only.
#pragma once

#include <string>

// 0 when every invariant holds; otherwise 1008 with one line per violation in *report (at most 50 lines).
int vns_check(std::string* report);
