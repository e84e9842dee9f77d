#include "apps/tavrel_agent/tavrel_op_table.h"

#include <array>

#include "ops/tavrel_connect.h"
#include "ops/tavrel_disconnect.h"
#include "ops/tavrel_endview.h"
#include "ops/tavrel_get_mounted_silo_list.h"
#include "ops/tavrel_is_project_silo.h"
#include "ops/tavrel_is_silo_mounted.h"
#include "ops/tavrel_is_silo_public.h"
#include "ops/tavrel_is_update_in_progress.h"
#include "ops/tavrel_mkview.h"
#include "ops/tavrel_mountsilo.h"
#include "ops/tavrel_startview.h"
#include "update/tavrel_load.h"
#include "update/tavrel_update.h"

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
// Update. Operations join the table as they are built.
constexpr Tavrel_Op_Entry kOperations[] = {
    {"Connect", "1", &make_op<Tavrel_Connect>},
    {"Disconnect", "1", &make_op<Tavrel_Disconnect>},
    {"EndView", "1", &make_op<Tavrel_Endview>},
    {"GetMountedSiloList", "1", &make_op<Tavrel_GetMountedSiloList>},
    {"IsSiloMounted", "1", &make_op<Tavrel_IsSiloMounted>},
    {"IsProjectSilo", "1", &make_op<Tavrel_IsProjectSilo>},
    {"IsUpdateInProgress", "1", &make_op<Tavrel_IsUpdateInProgress>},
    {"IsSiloPublic", "1", &make_op<Tavrel_IsSiloPublic>},
    {"Load", "1", &make_op<Tavrel_Load>},
    {"MkView", "1", &make_op<Tavrel_Mkview>},
    {"MountSilo", "1", &make_op<Tavrel_Mountsilo>},
    {"StartView", "1", &make_op<Tavrel_Startview>},
    {"Update", "1", &make_op<Tavrel_Update>},
};

}  // namespace

const Tavrel_Op_Entry* tavrel_op_table() { return kOperations; }
size_t tavrel_op_table_size() { return sizeof(kOperations) / sizeof(kOperations[0]); }
