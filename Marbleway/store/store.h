#pragma once

#include <initializer_list>

#include "Marbleway/store/statement.h"

namespace marbleway {

/// Makes the event store with its fifteen tables, unless anything stands in its place.
void initMarblewayDB();
/// Makes the network store with its one table, unless anything stands in its place.
void initMarblewayHTTPDB();

/// Drops all rows that are older than thirty days, by their UTC date, and no row of the day that
/// lies exactly thirty days back.
void purgeOldRows();

/// Run one statement, whatever its kind, on the event store and on the network store. Rows that it
/// returns are dropped; failures are silent. Thread: any.
void removeMarblewayDBData(const char* sql);
void removeMarblewayHTTPDBData(const char* sql);

/// Drops every row of `table` whose UTC date is on or before that of the text `cutOff`.
void removeUpTo(const Table& table, const std::string& cutOff);

/// Adds one row to the event store, committed when this returns, or else lost in silence.
/// `values` are the columns after `id`, in the text's order; an absent one is NULL. Thread: any.
void insertRow(InsertText sql, std::initializer_list<Text> values);

}  // namespace marbleway
