// The restored flag of a framework object is a double that counts as set only
// when it is exactly 1.0; saved objects carry it in that form.
#pragma once

namespace flux {

// Stores 1.0 for a nonzero boolean and 0.0 for zero.
inline void fw_x_set_flag(double* flag, bool on) {
    *flag = on ? 1.0 : 0.0;
}

// True exactly when the double equals 1.0 (NaN and every other value: false).
inline bool fw_x_flag_is_set(const double* flag) {
    return *flag == 1.0;
}

} // namespace flux
