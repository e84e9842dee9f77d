#include "server/form_data.h"

#include <gtest/gtest.h>

using namespace tavrel_server;

TEST(FormData, ReadsFieldsAndSniffsTheBoundary) {
  const std::string body =
      "--XyZ\r\nContent-Disposition: form-data; name=\"rpc\"\r\n\r\nTavrel_Orlen::lookup_rpc\r\n"
      "--XyZ\r\nContent-Disposition: form-data; name=\"rpcargs\"\r\nContent-Type: text/plain\r\n\r\n"
      "a=1\r\n--XyZ not a boundary\nb=2\n\r\n--XyZ--\r\n";
  for (const char* type : {"multipart/form-data; boundary=XyZ", "multipart/form-data", "multipart/form-data; boundary=\"XyZ\""}) {
    std::map<std::string, std::string> f;
    std::string err;
    ASSERT_TRUE(parse_form_data(type, body, &f, &err)) << type << ": " << err;
    EXPECT_EQ(f["rpc"], "Tavrel_Orlen::lookup_rpc");
    EXPECT_EQ(f["rpcargs"], "a=1\r\n--XyZ not a boundary\nb=2\n");
  }
}

TEST(FormData, RefusesMalformedBodies) {
  const char* bodies[] = {
      "",
      "no boundary line",
      "--A\r\nContent-Disposition: form-data; name=\"rpc\"\r\n\r\nx",                      // body never ends
      "--A\r\nContent-Disposition: form-data; name=\"rpc\"\r\n",                           // headers never end
      "--A\r\nContent-Disposition: attachment\r\n\r\nx\r\n--A--\r\n",                      // not form-data
      "--A\r\nNoColonHere\r\n\r\nx\r\n--A--\r\n",                                           // bad header
      "--A\r\n\r\nx\r\n--A--\r\n",                                                          // no name
      "--A\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--A\r\n"
      "Content-Disposition: form-data; name=\"a\"\r\n\r\n2\r\n--A--\r\n",                  // repeated
      "--A\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--Ajunk",               // junk after boundary
      "--B\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--B--\r\n",            // wrong boundary
  };
  for (const char* b : bodies) {
    std::map<std::string, std::string> f;
    std::string err;
    EXPECT_FALSE(parse_form_data("multipart/form-data; boundary=A", b, &f, &err)) << b;
  }
  std::string many;
  for (int i = 0; i < 40; ++i) many += "--A\r\nContent-Disposition: form-data; name=\"f" + std::to_string(i) + "\"\r\n\r\nx\r\n";
  many += "--A--\r\n";
  std::map<std::string, std::string> f;
  std::string err;
  EXPECT_FALSE(parse_form_data("multipart/form-data; boundary=A", many, &f, &err));
}
