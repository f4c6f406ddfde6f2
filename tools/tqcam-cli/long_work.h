// Calls of the library that take long, and the question before one that changes a camera.
#pragma once

#include <functional>
#include <string>

// Runs the work and shows on a terminal that time passes: a bar towards the seconds that it is expected to
// take, which waits just short of its end for work that takes longer.
void run_long(const std::string &what, double seconds, const std::function<void()> &work);

// Asks and reads an answer; anything but "y" or "yes" ends the command. With yes set nobody is asked; without
// a terminal to ask at, --yes is needed.
void confirm(const std::string &question, bool yes);
