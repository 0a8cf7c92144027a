#pragma once

#include <QString>

namespace corv {
struct InHand;
}

namespace corv::ctl {

// A request for people: "hosting.delete of shop, for root since 3 min". It is not escaped.
QString named(const InHand &request);

// What the agent with this process id is busy with while a request waits for its turn, as a sentence, escaped. Where it
// does not say so, the sentence does not either.
QString busyWith(int agent);

} // namespace corv::ctl
