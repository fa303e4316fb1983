#pragma once

namespace marbleway {

/// Asks the server whether the project is valid and for its configuration; returns at once.
///
/// The answer is applied on the main loop: without one, or with a 200, a session starts (after a
/// 200 under the server's configuration); any other status refuses the project. Thread: any.
void launchHandshake();

}  // namespace marbleway
