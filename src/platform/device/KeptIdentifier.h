#pragma once

namespace tarvo::platform {

/// The identifier that the home has kept is read, or made, anew when it is asked for next. Threads: any.
void forgetKeptIdentifier();

}  // namespace tarvo::platform
