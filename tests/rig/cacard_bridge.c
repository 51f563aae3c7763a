/* Connects a libcacard virtual card, personalised through an NSS database, to
 * vpcd's TCP port: running, it is a card in the virtual reader; ended
 * (SIGTERM), the card is pulled.
 *
 *   cacard_bridge <nss-db-dir> <certificate-nickname> <vpcd-port> [pull-at-INS]
 *
 * With "pull-at-INS" (hex, e.g. pull-at-42 for the CAC signature) the card is
 * pulled the moment an APDU with that instruction arrives, unanswered: a card
 * taken out in the middle of that operation; "pull-at-INS-N" waits for the
 * N-th such APDU.
 *
 * vpcd sends 2-byte big-endian length-prefixed messages: a 1-byte message is
 * a control (power off, power on, reset, get ATR), anything longer an APDU,
 * answered with its response. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <cacard/libcacard.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { k_ctrl_off = 0, k_ctrl_on = 1, k_ctrl_reset = 2, k_ctrl_atr = 4 };
enum { k_max_message = 65536 };

static int ReadAll(int fd, unsigned char* buffer, size_t length) {
  size_t done = 0;
  while (done < length) {
    ssize_t n = recv(fd, buffer + done, length - done, 0);
    if (n == 0) return -1;
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    done += (size_t)n;
  }
  /* The kernel drops quick-ack mode after a while; without it every reply
   * waits for a delayed ACK (about 40 ms an APDU). */
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
  return 0;
}

static int WriteAll(int fd, const unsigned char* buffer, size_t length) {
  size_t done = 0;
  while (done < length) {
    ssize_t n = send(fd, buffer + done, length - done, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    done += (size_t)n;
  }
  return 0;
}

static int SendMessage(int fd, const unsigned char* data, size_t length) {
  unsigned char header[2] = {(unsigned char)(length >> 8), (unsigned char)length};
  if (WriteAll(fd, header, 2) != 0) return -1;
  return WriteAll(fd, data, length);
}

/* vpcd may not be listening yet when the bridge starts: try for 20 s. */
static int ConnectToVpcd(int port) {
  struct sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons((unsigned short)port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int attempt = 0; attempt < 200; ++attempt) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, (struct sockaddr*)&address, sizeof address) == 0) {
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
      return fd;
    }
    close(fd);
    struct timespec pause = {0, 100 * 1000 * 1000};
    nanosleep(&pause, NULL);
  }
  return -1;
}

static VReader* FirstReader(void) {
  VReaderList* list = vreader_get_reader_list();
  if (list == NULL) return NULL;
  VReaderListEntry* entry = vreader_list_get_first(list);
  VReader* reader = entry ? vreader_reference(vreader_list_get_reader(entry)) : NULL;
  vreader_list_delete(list);
  return reader;
}

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    fprintf(stderr, "usage: %s <nss-db-dir> <certificate-nickname> <vpcd-port> [pull-at-INS]\n",
            argv[0]);
    return 2;
  }
  unsigned pull_at = 0x100;
  unsigned pull_after = 1;
  if (argc == 5 && sscanf(argv[4], "pull-at-%x-%u", &pull_at, &pull_after) < 1) return 2;
  char options[4096];
  snprintf(options, sizeof options, "db=\"sql:%s\" use_hw=no soft=(,Virtual Card Reader,CAC,,%s)",
           argv[1], argv[2]);
  VCardEmulOptions* parsed = vcard_emul_options(options);
  if (parsed == NULL || vcard_emul_init(parsed) != VCARD_EMUL_OK) {
    fprintf(stderr, "cacard_bridge: the virtual card did not start from %s\n", argv[1]);
    return 1;
  }
  VReader* reader = FirstReader();
  if (reader == NULL || vreader_card_is_present(reader) != VREADER_OK) {
    fprintf(stderr, "cacard_bridge: no virtual card in the reader\n");
    return 1;
  }
  unsigned char atr[64];
  int atr_length = sizeof atr;
  if (vreader_power_on(reader, atr, &atr_length) != VREADER_OK) {
    fprintf(stderr, "cacard_bridge: the virtual card did not power on\n");
    return 1;
  }

  int fd = ConnectToVpcd(atoi(argv[3]));
  if (fd < 0) {
    fprintf(stderr, "cacard_bridge: no vpcd on port %s\n", argv[3]);
    return 1;
  }
  printf("inserted\n");
  fflush(stdout);

  static unsigned char message[k_max_message];
  static unsigned char response[k_max_message];
  for (;;) {
    unsigned char header[2];
    if (ReadAll(fd, header, 2) != 0) break;
    size_t length = ((size_t)header[0] << 8) | header[1];
    if (length == 0 || ReadAll(fd, message, length) != 0) break;
    if (length == 1) {
      switch (message[0]) {
        case k_ctrl_off: vreader_power_off(reader); break;
        case k_ctrl_on:
          atr_length = sizeof atr;
          vreader_power_on(reader, atr, &atr_length);
          break;
        case k_ctrl_reset:
          vreader_power_off(reader);
          atr_length = sizeof atr;
          vreader_power_on(reader, atr, &atr_length);
          break;
        case k_ctrl_atr:
          /* Also vpcd's presence poll: answered from the ATR kept at power
           * on, so polling never resets the card (nor logs it out). */
          if (SendMessage(fd, atr, (size_t)atr_length) != 0) goto done;
          break;
        default: break;
      }
      continue;
    }
    if (length >= 4 && message[1] == pull_at && --pull_after == 0) {
      printf("pulled at instruction %02x\n", pull_at);
      fflush(stdout);
      break;
    }
    int response_length = sizeof response;
    if (vreader_xfr_bytes(reader, message, (int)length, response, &response_length) != VREADER_OK) {
      break;
    }
    if (SendMessage(fd, response, (size_t)response_length) != 0) break;
  }
done:
  close(fd);
  vreader_free(reader);
  return 0;
}
