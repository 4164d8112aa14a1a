#pragma once

#include <string>
#include <vector>

// Pure rules about serial port names: the COM naming of Windows and the
// device paths of POSIX systems. Kept free of system calls so that both
// builds share and test them.
namespace PortNames {

// True when the name starts with C, O, M in either case followed by a digit.
bool hasComPrefix(const std::string& name);

// The number of a COM name (COM12x is 12); 0 for anything that is not one,
// including numbers too large for an int.
int comIndex(const std::string& name);

// COM names get the \\.\ device prefix, which the system needs from COM10
// on; names that already have it and anything else pass unchanged.
std::string normalizePortName(const std::string& name);

// Order of probed COM names: by number when both have one, else by plain
// string comparison.
bool comPortLess(const std::string& a, const std::string& b);
void sortComPorts(std::vector<std::string>& names);

// The same idea for device paths: names with the same stem compare by their
// trailing number (/dev/ttyUSB2 before /dev/ttyUSB10), different stems by
// plain string order. Unlike a mix of both rules per pair, this is a strict
// weak order for any input, so it is safe for std::sort.
bool devicePortLess(const std::string& a, const std::string& b);
void sortDevicePorts(std::vector<std::string>& names);

// Splits a list such as "/dev/a:/dev/b" at `separator`, skipping empty items.
std::vector<std::string> splitPathList(const std::string& text, char separator);

} // namespace PortNames
