// Text for 32-bit floats in the form the back end and the logs expect: the shortest decimal that
// reads back to the same float, always with a decimal point or an exponent ("1.0", "-0.25",
// "0.001", "1e-05", "1.6777218e+07"), and "nan", "inf", "-inf" for the special values.
//
// Plain functions; thread-safe.
#pragma once

#include <string>

namespace omra {

// Appends the text of value to out (no allocation beyond out's growth).
void appendFloatShortest(std::string& out, float value);

std::string formatFloatShortest(float value);

// Appends value with the given number of decimals, as printf's "%.Nf" in the "C" locale writes it
// ("nan", "inf" and "-inf" for the special values), whatever locale the host process runs in.
void appendFixed(std::string& out, double value, int decimals);

// Appends the shortest text that reads back to the same double ("nan", "inf", "-inf" as above).
void appendDoubleShortest(std::string& out, double value);

}  // namespace omra
