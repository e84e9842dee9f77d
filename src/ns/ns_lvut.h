// ns_lvut: the last view update time (LVUT) of a SILO, which tells the kernel module whether what it
// holds about the SILO may be old.
//
// Each loss or change of cached SILO attributes moves the SILO's LVUT to the view time (strictly
// increasing in the process) and counts the reason: 0 "cached objects removed", 1 "cached objects
// updated", 2 "non-cached objects updated", 3 "silo was flushed", 4 "SILO was changed". View-private
// objects (mtype 19, 21, 22, 23, 26) move nothing: the kernel does not cache them against the LVUT.
//
// Locks: the LVUT of a record and lvut_stats are guarded by tavrel_cache_mutex, which these
// functions take.
#pragma once

#include <string>

struct view_silo;
struct obj_entry;

constexpr int NS_LVUT_REASONS = 5;
extern unsigned lvut_stats[NS_LVUT_REASONS];

// Moves the SILO's LVUT for `reason` (0-4); obj may be null. A view-private object changes nothing.
void fstat_update_lvut(view_silo* silo, const obj_entry* obj, int reason);
// The reasons' lines for the statistics, one per reason: "\t<count> <reason text>\n".
std::string lvut_stats_text();
