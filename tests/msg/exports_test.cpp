// The shared object exports the records and their codec, and no internals:
// no node identifier, no codec helper.

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>

TEST(Exports, RecordsAndCodecExportedInternalsHidden) {
  FILE* nm = popen("nm -DC --defined-only '" TARN_LIBRARY_PATH "'", "r");
  ASSERT_NE(nm, nullptr);
  std::string listing;
  char chunk[4096];
  for (std::size_t n; (n = fread(chunk, 1, sizeof chunk, nm)) > 0;) listing.append(chunk, n);
  ASSERT_EQ(pclose(nm), 0);

  for (const char* symbol :
       {"QrInfo_RTS::QrInfo_RTS()", "QrInfo_RTS::QrInfo_RTS(std::__cxx11::basic_string",
        "QrInfo_RTS::operator==(QrInfo_RTS const&) const",
        "QrInfo_RTS::operator!=(QrInfo_RTS const&) const",
        "Action_RTS::Action_RTS(int, QrInfo_RTS const&, std::__cxx11::basic_string",
        "Action_RTS::Action_RTS(int, QrInfo_RTS const&, std::deque",
        "Action_RTS::Action_RTS(int, std::deque", "Action_RTS::str[abi:cxx11]() const",
        "Action_RTS::decode(std::__cxx11::basic_stringstream",
        "Action_RTS::decode(std::basic_ifstream", "Message_RTS::Message_RTS()",
        "Message_RTS::str[abi:cxx11]()", "Message_RTS::decode(std::__cxx11::basic_stringstream",
        "Message_RTS::decode(std::basic_ifstream",
        "Message_RTS::decode(std::__cxx11::basic_string<char"})
    EXPECT_NE(listing.find(symbol), std::string::npos) << symbol;

  std::istringstream lines(listing);
  for (std::string line; std::getline(lines, line);) {
    const std::string name = line.substr(line.find(' ', line.find(' ') + 1) + 1);
    for (const std::string hidden :
         {"rts_id", "server_id", "robot_id", "rms_id", "arm_id", "undef", "decode_message",
          "decode_action", "extract_code", "append_message", "encoded_size"})
      EXPECT_FALSE(name == hidden || name.rfind(hidden + "(", 0) == 0) << line;
  }
}
