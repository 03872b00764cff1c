#pragma once

// Node identifiers of an installation. Internal to the library: namespace-scope
// const objects have internal linkage, so every source file that includes this
// header gets its own copies (built before any record is) and none of them
// reaches the dynamic symbol table.

#include <string>

const std::string rms_id = "S-0";      // a further node kind; unused here
const std::string rts_id = "T-0";      // this client: sender of everything it builds
const std::string server_id = "SV-0";  // the control server
const std::string robot_id = "R-0";    // the robot
const std::string arm_id = "A-0";      // an arm; unused here
const std::string undef = "N";         // no value: default of every text field
