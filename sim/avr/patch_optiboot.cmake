# Copies the packaged optiboot sources into the build tree and lets them build
# for the ATmega1284P the way they build for its smaller sibling, the 644P.
foreach(f optiboot.c pin_defs.h boot.h stk500.h)
  file(READ "${SRC}/${f}" text)
  string(REPLACE "defined(__AVR_ATmega644P__)" "(defined(__AVR_ATmega644P__) || defined(__AVR_ATmega1284P__))" text "${text}")
  string(REPLACE "defined (__AVR_ATmega644P__)" "(defined(__AVR_ATmega644P__) || defined(__AVR_ATmega1284P__))" text "${text}")
  file(WRITE "${DST}/${f}" "${text}")
endforeach()
