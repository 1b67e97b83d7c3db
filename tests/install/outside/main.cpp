// Reads one parameter and one cookie through the installed library and the
// installed platform header, and prints them.
#include <webapi/WebAPIUtil.h>
#include <webapi/WebCGI.h>
#include <merocore.h>

#include <cstdio>

int main() {
  MERO::WebCGI cgi("outside", true);
  int version = 0;
  const bool numeric = MERO::WebAPIUtil::ParseInt(cgi.In("version", ""), &version);
  std::printf("api=%s version=%d numeric=%d id=%s error=%d\n", cgi.In("api", "-"), version, numeric,
              cgi.GetCookie("id", "-"), MLIBCErrGet());
  return 0;
}
