// The rules of the I/O, PnP and power managers, in the form of rule_table.h.
#pragma once

// clang-format off
#define VF_IRP_RULES(R)
// clang-format on
