// All rows of the catalogue, found by site at compile time. That they fit together is checked once, in report.cpp: each
// source of the driver compiles this file.
#pragma once

#include "driver/trace/rows_delivery.h"
#include "driver/trace/rows_driver.h"
#include "driver/trace/rows_dump.h"
#include "driver/trace/rows_forwarding.h"
#include "driver/trace/rows_registry.h"

struct RowList {
    const Row* rows;
    ULONG count;
};

template <ULONG Count>
consteval RowList ListOf(const Row (&rows)[Count])
{
    return {rows, Count};
}

// In the order of the sites.
inline constexpr RowList kRowLists[] = {ListOf(kDriverRows), ListOf(kRegistryRows), ListOf(kDeliveryRows),
                                        ListOf(kDumpRows), ListOf(kForwardingRows)};

consteval const Row& RowOf(Site site)
{
    ULONG index = static_cast<ULONG>(site);
    for (const RowList& list : kRowLists) {
        if (index < list.count) {
            return list.rows[index];
        }
        index -= list.count;
    }
    return kDriverRows[0];  // not reached: each site has its row
}
