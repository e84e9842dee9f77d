#include "ops/tavrel_op_table.h"

#include <array>

namespace {

// Builds an operation of class Op from the parsed request (ownership of `doc` passes to it).
template <class Op>
[[maybe_unused]] Tavrel_AbstractOp* make_op(const std::string& location, OlXmlDoc* doc) {
  return Tavrel_AbstractOp::make_with_doc<Op>(location, doc);
}

// Rows in comparison order: Checkin, Checkout, Connect, Disconnect, EndView, GetAggregatedState,
// GetCache, GetChildren, GetConfigSpec, GetMetadata, GetMountedSiloList, Hijack, InvalidateCheckouts,
// IsSiloMounted, IsProjectSilo, IsUpdateInProgress, IsSiloPublic, Load, MergeDirectory, Mkelem, MkView,
// MountSilo, Move, Restore, Rmname, SetCache, SetConfigSpec, StartView, Uncheckout ("2"), Unhijack,
// Update. A row reads {"Checkin", "1", &make_op<Tavrel_Checkin>}. None of these operations is built
// yet, so the table is empty and every request is answered as unrecognised.
constexpr std::array<Tavrel_Op_Entry, 0> kOperations{};

}  // namespace

const Tavrel_Op_Entry* tavrel_op_table() { return kOperations.data(); }
size_t tavrel_op_table_size() { return kOperations.size(); }
