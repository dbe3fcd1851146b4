#ifndef OMBREL_SONRAJBUFFRAME_P_H
#define OMBREL_SONRAJBUFFRAME_P_H

#include <boost/shared_ptr.hpp>

#include <vector>

namespace ombrel {

// One received frame, shared by every queue of a SonraJbuf; no queue changes it.
struct SonraJbufFrame_p {
    unsigned m_seqNum;
    unsigned m_timeStamp; // ms, carried through unchanged
    boost::shared_ptr<std::vector<char> > m_data;
    unsigned m_bufTime;   // ms, the owner's clock when the frame was put
    // Every queue holds the same record; under the adaptive policy a queue
    // moved to may still offer one that an earlier queue already played.
    bool m_delivered = false;
    // The queues' slots point at the record without owning it, so that
    // storing and taking a frame touches no atomic reference count: the
    // slots that hold it count themselves here, and m_self keeps the record
    // alive while that count is above zero.
    unsigned m_holders = 0;
    boost::shared_ptr<SonraJbufFrame_p> m_self;
};

} // namespace ombrel

#endif
