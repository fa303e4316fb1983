#pragma once

namespace marbleway {

/// Reads every row of all sixteen tables into one document and posts it to the server, whose 200
/// deletes what was read; returns as soon as the request has begun.
///
/// Nothing happens unless the library is connected, valid, in a session, tracking and uploading;
/// nor when there is no row. Failures are silent: a table that cannot be read counts as empty, and
/// what the server does not take is read again by the next batch. Overlapping calls send the same
/// rows twice. Thread: any.
void batchData();

}  // namespace marbleway
