// Device library of the family: sound devices on PortAudio and a virtual device.
#ifndef OMBREL_SONRAUNIVERSALDEV_H
#define OMBREL_SONRAUNIVERSALDEV_H

#endif
