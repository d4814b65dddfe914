// Python's environment beyond the bootstrap script (see Environment.h).
#include "Environment.h"

#include "Interrupts.h"
#include "Signals.h"

#include "convert/PyErrors.h"
#include "modules/StreamsMod.h"

namespace pytarn {

void setUpEnvironment() {
    if (!streams::install()) printPythonError();
    if (!interrupts::prepare()) printPythonError();
    if (!signals::install()) printPythonError();
}

} // namespace pytarn
