/*
 * A stand-in Controller firmware for the simulated AVR boards: it answers the
 * identification requests of the text protocol on USART0 at 115200 baud with
 * the identity it was built with, so a test that flashes image A sees identity A.
 *
 *   "getCID\n"      -> "CID:" + 32 characters + "\n"
 *   "getVersion\n"  -> "VERSION:" + version + "\n"
 *
 * Anything else is ignored. QUENDRAL_PAD_BYTES adds constant filler to make
 * large images for timing the flashing tools.
 */
#include <avr/io.h>
#include <avr/pgmspace.h>
#include <stdint.h>
#include <string.h>

#ifndef QUENDRAL_CID
#error "QUENDRAL_CID must be defined"
#endif
#ifndef QUENDRAL_VERSION
#error "QUENDRAL_VERSION must be defined"
#endif

typedef char cid_must_be_32_chars[(sizeof(QUENDRAL_CID) == 33) ? 1 : -1];

static const char cidLine[] PROGMEM = "CID:" QUENDRAL_CID "\n";
static const char versionLine[] PROGMEM = "VERSION:" QUENDRAL_VERSION "\n";

#if defined(QUENDRAL_PAD_BYTES) && QUENDRAL_PAD_BYTES > 0
/* Filler in chunks below the compiler's 32 KiB object limit. */
#define PAD_CHUNK(n) ((n) > 30000L ? 30000L : (n))
const uint8_t pad0[PAD_CHUNK(QUENDRAL_PAD_BYTES)] PROGMEM __attribute__((used)) = {1, 2, 3};
#if QUENDRAL_PAD_BYTES > 30000L
const uint8_t pad1[PAD_CHUNK(QUENDRAL_PAD_BYTES - 30000L)] PROGMEM __attribute__((used)) = {4, 5, 6};
#endif
#if QUENDRAL_PAD_BYTES > 60000L
const uint8_t pad2[PAD_CHUNK(QUENDRAL_PAD_BYTES - 60000L)] PROGMEM __attribute__((used)) = {7, 8, 9};
#endif
#endif

static void uartInit(void)
{
    UCSR0A = _BV(U2X0);
    UBRR0 = (F_CPU / 8 / 115200) - 1;
    UCSR0B = _BV(RXEN0) | _BV(TXEN0);
    UCSR0C = _BV(UCSZ01) | _BV(UCSZ00);
}

static void put(char c)
{
    while (!(UCSR0A & _BV(UDRE0))) {
    }
    UDR0 = c;
}

static void putLine(const char* line)
{
    char c;
    while ((c = pgm_read_byte(line++)) != 0) {
        put(c);
    }
}

int main(void)
{
    char line[32];
    uint8_t len = 0;
    uartInit();
    for (;;) {
        while (!(UCSR0A & _BV(RXC0))) {
        }
        char c = UDR0;
        if (c == '\r') {
            continue;
        }
        if (c != '\n') {
            if (len < sizeof line - 1) {
                line[len++] = c;
            } else {
                len = sizeof line; /* too long: ignore this line */
            }
            continue;
        }
        if (len < sizeof line) {
            line[len] = 0;
            if (strcmp(line, "getCID") == 0) {
                putLine(cidLine);
            } else if (strcmp(line, "getVersion") == 0) {
                putLine(versionLine);
            }
        }
        len = 0;
    }
}
