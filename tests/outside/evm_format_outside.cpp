// A program of another service that shows events to people: built apart from the project against
// evm.h alone and the static libraries, it formats events by their messages, by templates and as
// dumps, and checks every text to the byte. Argument: a home whose catalog it reads.
// Exit status 0 when everything held.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "evm/libevm/evm.h"

namespace {

int g_failures = 0;

void expect(const std::string& got, const std::string& want, const char* what) {
  if (got != want) {
    std::printf("FAILED: %s\n  got:  [%s]\n  want: [%s]\n", what, got.c_str(), want.c_str());
    ++g_failures;
  }
}

void expectStatus(EvmStatus_t got, EvmStatus_t want, const char* what) {
  if (got != want) {
    std::printf("FAILED: %s: status %d, want %d\n", what, static_cast<int>(got), static_cast<int>(want));
    ++g_failures;
  }
}

EvmEvent_t named(const char* name, const char* format) {
  EvmEvent_t ev = nullptr;
  EvmEventCreateVa(&ev, EvmITEM_NAME, name, 0);
  if (format != nullptr) EvmItemSetVa(ev, EvmITEM_FORMAT, format, 0);
  return ev;
}

std::string message(EvmEvent_t ev) {
  char buf[1024];
  expectStatus(EvmEventFormat(buf, sizeof buf, ev), EvmERROR_NONE, "EvmEventFormat");
  return buf;
}

std::string templ(EvmEvent_t ev, const char* t) {
  char buf[1024];
  expectStatus(EvmEventFormatFromTemplate(buf, sizeof buf, t, ev), EvmERROR_NONE, "EvmEventFormatFromTemplate");
  return buf;
}

std::string dump(EvmEvent_t ev) {
  FILE* f = std::tmpfile();
  expectStatus(EvmEventDump(ev, f), EvmERROR_NONE, "EvmEventDump");
  std::string text;
  std::rewind(f);
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
  std::fclose(f);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  setenv("ZEL_VYN_HOME", argv[1], 1);

  EvmEvent_t ev = named("a.b", "Hi $who");
  char buf[8] = "x";
  expectStatus(EvmEventFormat(buf, 0, ev), EvmERROR_INVALID_VALUE, "size 0");
  expect(buf, "x", "size 0 writes nothing");
  expectStatus(EvmEventFormat(buf, 1, ev), EvmERROR_NONE, "size 1");
  expect(buf, "", "size 1 is the empty text");

  EvmVarSetString(ev, "who", "Bob");
  expect(message(ev), "Hi Bob", "a variable");
  EvmItemSetVa(ev, EvmITEM_FORMAT, "Hi $missing", 0);
  expect(message(ev), "Hi $missing", "a missing variable stands");
  EvmItemSetVa(ev, EvmITEM_FORMAT, "at @priority", 0);
  expect(message(ev), "at @priority", "a missing item stands");
  expect(templ(ev, "at @priority"), "at -", "a missing item in a template");
  EvmItemSetVa(ev, EvmITEM_PRIORITY, 500, EvmITEM_FORMAT, "@PRIORITY @var @unused_1 $ x", 0);
  expect(message(ev), "500 @var @unused_1 $ x", "item names in any case, items never shown, a bare sign");
  EvmItemSetVa(ev, EvmITEM_REPEAT_COUNT, 3, 0);
  expect(message(ev), "[3 times] 500 @var @unused_1 $ x", "a repeat count of 3");
  expectStatus(EvmEventFormatOpt(buf, sizeof buf, ev, 1), EvmERROR_NONE, "options");
  expect(buf, "500 @va", "without the repeat count, cut to the buffer");
  EvmItemSetVa(ev, EvmITEM_REPEAT_COUNT, 1, 0);
  expect(message(ev), "500 @var @unused_1 $ x", "a repeat count of 1");
  EvmVarSetString(ev, "name", "abc");
  EvmVarSetString(ev, "long", "abcdefghijklm");
  expect(templ(ev, "[${name}%10][${name%10}][$name%10][$long%10]"), "[abc       ][abc       ][abc       ][abcdefghijklm]",
         "template widths");
  expect(templ(ev, "@@\\t@name\\n"), "500 @var @unused_1 $ x\ta.b\n", "the whole message and escapes");
  EvmVarSetString(ev, "ctl", "a\x01\tb");
  EvmItemSetVa(ev, EvmITEM_FORMAT, "[$ctl]", 0);
  expect(message(ev), "[a# b]", "a control character and a tab in a value");
  char var[64];
  expectStatus(EvmVarFormat(ev, "ctl", var, sizeof var, EvmFALSE), EvmERROR_NONE, "EvmVarFormat");
  expect(var, "a\x01\tb", "a value untranslated");
  EvmEventDestroy(ev);

  ev = named("a.b", nullptr);
  EvmVarSetInt32(ev, "n", 7);
  EvmVarSetOpaque(ev, "o", "xyz", 3);
  expect(message(ev), "Unformatted event \"a.b\": n=7 o=[OPAQUE VALUE: 3 bytes] ", "the default form");
  expect(dump(ev),
         "\nFormatted Message:\n    Unformatted event \"a.b\": n=7 o=[OPAQUE VALUE: 3 bytes]\n"
         "\nEvent Data Items:\n    Event Name        : a.b\n"
         "\nVariable Items:\n    n (INT32) = 7\n    o (OPAQUE) = [OPAQUE VALUE: 3 bytes]\n",
         "a dump");
  EvmEventDestroy(ev);

  std::string solid(200, 'x');
  ev = named("w", solid.c_str());
  expect(dump(ev),
         "\nFormatted Message:\n    " + std::string(75, 'x') + "\n    " + std::string(75, 'x') + "\n    " +
             std::string(50, 'x') + "\n\nEvent Data Items:\n    Event Name        : w\n    Format            : " +
             std::string(55, 'x') + "\n" + std::string(24, ' ') + std::string(55, 'x') + "\n" + std::string(24, ' ') +
             std::string(55, 'x') + "\n" + std::string(24, ' ') + std::string(35, 'x') +
             "\n\nVariable Items:\n    None\n",
         "a dump wraps a long text");
  EvmEventDestroy(ev);

  ev = named("a.b", nullptr);
  EvmVarSetString(ev, "_x", "c d");
  EvmUint32_t added = 0;
  expectStatus(EvmEventAutoExtendName(ev, &added), EvmERROR_NONE, "EvmEventAutoExtendName");
  EvmItemValue_t v;
  EvmItemGet(ev, EvmITEM_NAME, &v);
  expect(v.NAME, "a.b._x.cd", "the name extended by a variable");
  EvmItemRelease(EvmITEM_NAME, v);
  EvmEventDestroy(ev);

  EvmItemId_t id = EvmITEM_NONE;
  expectStatus(EvmItemIdFromName("Host_IP", &id), EvmERROR_NONE, "EvmItemIdFromName");
  expect(EvmItemDescription(id), "Host IP address", "a description");
  EvmString_t name = nullptr;
  expectStatus(EvmItemNameFromId(static_cast<EvmItemId_t>(99), &name), EvmERROR_INVALID_VALUE, "an unknown id");
  expect(EvmItemDescription(static_cast<EvmItemId_t>(99)), "Unknown item id", "an unknown id's description");

  if (g_failures == 0) std::printf("all held\n");
  return g_failures == 0 ? 0 : 1;
}
