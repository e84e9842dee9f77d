// The operation table: which class the factory builds for which root element, in the order the
// factory compares them (case-sensitive, first match wins), and the highest request version each
// accepts ("1" everywhere but Uncheckout, which accepts "2"). Every operation except MkView and
// StartView requires a tx-id (the operation says so to parse_validate_request).
//
// A root element that is not in the table is answered as unrecognised (Tavrel_Unknown). Operations
// join the table as they are built.
#pragma once

#include <cstddef>

#include "ops/tavrel_abstract_op.h"

// The table and its length.
const Tavrel_Op_Entry* tavrel_op_table();
size_t tavrel_op_table_size();
