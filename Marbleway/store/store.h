#pragma once

#include <initializer_list>
#include <string>

#include "Marbleway/Host.h"
#include "Marbleway/store/statement.h"

namespace marbleway {

/// The absolute path of a store's file.
std::string pathOf(Store store);

/// Creates each store with its tables, unless a file exists in its place.
void createStores();

/// Removes all rows that are older than thirty days, by their UTC date, and no row of the day that
/// lies exactly thirty days back. Like `removeUpTo`, in slices that leave others time to write.
void purgeOldRows();

/// Removes every row of `table` whose UTC date is on or before that of the text `cutOff`.
void removeUpTo(const Table& table, const std::string& cutOff);

/// Counts the rows of `table` and the bytes of their texts. Like a batch it reads for 50 ms at a
/// time, so that others can write; a table that cannot be read has none.
PendingRows countRows(const Table& table);

/// Adds one row to the event store, committed when this returns, or else lost in silence.
/// `values` are the columns after `id`, in the text's order; an absent one is NULL. Thread: any.
void insertRow(InsertText sql, std::initializer_list<Text> values);

}  // namespace marbleway
