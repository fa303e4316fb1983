#pragma once

namespace marbleway {

/// Reads every row of all sixteen tables into one document and posts it to the server. Returns when
/// the request has begun. A response of 200 deletes from each table the rows up to the UTC day on
/// which the table was read.
///
/// Does nothing unless the library is connected, valid, in a session, tracking and uploading; nor
/// while four batches are in flight; nor when there is no row. Batches in flight send the same
/// rows. Failures are silent: a table that cannot be read counts as empty, and rows that stay are
/// read again by the next batch. Thread: any.
void batchData();

}  // namespace marbleway
