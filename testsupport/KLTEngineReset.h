// Resets an engine as on a fresh device, for tests that run many independent cases on the shared
// instance: it forgets every stored config item and every listener registered with its controller,
// and frees the rule objects. Runs on the engine's queue after every task posted before it and
// waits for it: false when the queue is not idle within the timeout (a timer that never ends holds
// it for good). Call from any thread but the queue's, with no event being delivered meanwhile.
#pragma once

#include <chrono>

class KLTContextEvaluator;

bool KLTResetEngine(KLTContextEvaluator& engine, std::chrono::milliseconds timeout = std::chrono::seconds(10));
