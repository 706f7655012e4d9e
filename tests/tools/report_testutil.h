// Scaffolding for the report tests: a finished run built by hand over a short simulated scene, and
// a small reader for the tables of the HTML report.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/runner/scenario_run.h"

namespace omra::tools::testing {

// Every asset back 3 cm and 0.4 degrees off, by two updates (an image-matcher one with one asset,
// then an SU one with all), when success; none back otherwise. localizationFramesFed of the
// localization frames were fed.
ScenarioReport handMadeReport(bool success, size_t localizationFramesFed);

// The text of each cell of each row of the table's body (<table id="id">), character references
// decoded; empty when there is no such table.
std::vector<std::vector<std::string>> tableRows(const std::string& html, const std::string& id);

// &lt; &gt; &amp; &quot; &#39; back to their characters.
std::string decodeReferences(const std::string& text);

}  // namespace omra::tools::testing
