// All rows of the catalogue, found by site at compile time.
#pragma once

#include "trace/rows_delivery.h"
#include "trace/rows_driver.h"
#include "trace/rows_dump.h"
#include "trace/rows_forwarding.h"
#include "trace/rows_registry.h"

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
    return kDriverRows[0];  // not reached: RowsMatchSites() holds
}

consteval bool RowsMatchSites()
{
    ULONG next = 0;
    for (const RowList& list : kRowLists) {
        for (ULONG index = 0; index < list.count; ++index, ++next) {
            if (static_cast<ULONG>(list.rows[index].site) != next) {
                return false;
            }
        }
    }
    return next == static_cast<ULONG>(Site::kCount);
}
static_assert(RowsMatchSites(), "one row for each site, in the order of the sites");

consteval bool MessageNumbersAreUnique()
{
    for (const RowList& list : kRowLists) {
        for (ULONG index = 0; index < list.count; ++index) {
            const Message& message = list.rows[index].message;
            ULONG uses = 0;
            for (const RowList& otherList : kRowLists) {
                for (ULONG other = 0; other < otherList.count; ++other) {
                    const Message& candidate = otherList.rows[other].message;
                    uses += candidate.number == message.number && candidate.set == message.set ? 1 : 0;
                }
            }
            if (message.number != 0 && uses != 1) {
                return false;
            }
        }
    }
    return true;
}
static_assert(MessageNumbersAreUnique(), "a message number stands once in its set");
