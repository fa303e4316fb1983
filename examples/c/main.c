/* A bakery's till in C. Each sale is an event; a printer that fails is an error.
 *
 *   till                           reads orders from standard input, one a line
 *   till --once DOCUMENTS SERVER   records three orders in that directory and ends
 */
#include <Marbleway/marbleway_c.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

/* Options are a JSON text. Without "PrivacyMode" privacy mode would be on. */
static const char kOptions[] = "{\"SDKEnvironment\": 1, \"PrivacyMode\": false}";

static int configure(const char* documents, const char* server) {
  char json[2048];
  const int length = snprintf(json, sizeof json,
                              "{\"documentsDirectory\": \"%s\", \"developmentURL\": \"%s\","
                              " \"appVersion\": \"1.0\"}",
                              documents, server);
  if (length < 0 || (size_t)length >= sizeof json) return MARBLEWAY_REFUSED;
  return marbleway_configure(json);
}

/* Copies a text for use inside JSON, without quotes, backslashes and control characters. */
static void quote(const char* text, char* quoted, size_t size) {
  size_t used = 0;
  for (; *text != '\0' && used + 1 < size; ++text) {
    const unsigned char c = (unsigned char)*text;
    if (c >= ' ' && c != '"' && c != '\\') quoted[used++] = *text;
  }
  quoted[used] = '\0';
}

static void sell(const char* bread, double price) {
  char name[200];
  char attributes[300];
  quote(bread, name, sizeof name);
  snprintf(attributes, sizeof attributes, "{\"bread\": \"%s\", \"Value\": %.2f}", name, price);
  if (marbleway_track_event("Sale", attributes) != MARBLEWAY_OK) fputs("invalid sale\n", stderr);
}

static void print(void) {
  FILE* printer = fopen("/nowhere/printer", "w");
  if (printer == NULL) {
    marbleway_log_error("Print", "no receipt", "IOError", strerror(errno),
                        "{\"device\": \"printer\"}");
    return;
  }
  fclose(printer);
}

static void serve(void) {
  char order[200];
  while (fgets(order, sizeof order, stdin) != NULL) {
    order[strcspn(order, "\n")] = '\0';
    sell(order, 2.5);
  }
}

int main(int count, char** arguments) {
  const int once = count == 4 && strcmp(arguments[1], "--once") == 0;
  const int status = once ? configure(arguments[2], arguments[3]) : marbleway_configure(NULL);
  if (status != MARBLEWAY_OK) return 2;

  marbleway_init_with_options("my-project", kOptions);
  marbleway_wait_until_idle(5000); /* for the server's answer to the start */
  marbleway_track_screen_view("Till", NULL);
  if (once) {
    sell("Rye", 4.2);
    sell("Wheat", 3.9);
    sell("\"Spelt\"", 5);
    print();
  } else {
    serve();
  }
  marbleway_stop_session(); /* begins an upload */
  return marbleway_wait_until_idle(5000) ? 0 : 1;
}
