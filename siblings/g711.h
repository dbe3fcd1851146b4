// G.711 A-law and mu-law conversions of single samples.
#ifndef OMBREL_G711_H
#define OMBREL_G711_H

#endif
