// What the application and its task call each other by.
#ifndef MY_APP_NAMES_H
#define MY_APP_NAMES_H

namespace my_app {

// The task, which CMakeLists.txt names so, too.
inline constexpr char kTask[] = "my_app_task";

// Takes a list of 32-bit integers, answers their sum; -32602 for anything else.
inline constexpr char kAdd[] = "add";

}  // namespace my_app

#endif  // MY_APP_NAMES_H
