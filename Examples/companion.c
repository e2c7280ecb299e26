/* A companion in C: holds a fan at a speed until Enter or the end of its input, and reports what happens to it.
 *
 * usage: companion-c FAN RPM */
#include <FanControlClient/FanControlC.h>
#include <stdio.h>
#include <stdlib.h>

/* Runs on the keeper's thread. */
static void tell(void* context, int fan, quorvane_fan_event event, const char* text) {
  static const char* const names[] = {"forced", "the helper is unreachable", "given back",
    "given back after the longest manual period", "taken back", "refused"};
  (void)context;
  printf("fan %d: %s. %s\n", fan, names[event], text);
  fflush(stdout);
}

int main(int argc, char* argv[]) {
  if (argc != 3) return 2;
  quorvane_client* client = quorvane_client_new();
  if (client == NULL) return 1;
  if (quorvane_client_connect(client) != QUORVANE_DONE) {
    fprintf(stderr, "%s\n", quorvane_client_text(client));
    quorvane_client_free(client);
    return 1;
  }
  if (quorvane_client_status(client) == QUORVANE_DONE) {
    const char* fans = quorvane_client_status_value(client, "fanCount");
    printf("fans: %s\n", fans != NULL ? fans : "?");
  }
  quorvane_client_free(client);

  quorvane_keeper* keeper = quorvane_keeper_new(tell, NULL);
  if (keeper == NULL) return 1;
  quorvane_keeper_hold(keeper, atoi(argv[1]), atoll(argv[2]));
  getchar();
  quorvane_keeper_free(keeper); /* gives the fan back */
  return 0;
}
