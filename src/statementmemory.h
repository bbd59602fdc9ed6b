// What a handle keeps of its last statement, since programs run one statement many times: `bench
// counts` tells what each part wins.
#pragma once

#include <memory>
#include <string>

#include "mono/resultset.h"
#include "util/dynstr.h"

class StatementMemory {
  public:
    // A statement's text as it is sent, its kind and the number of its markers.
    struct Normalized {
        DynStr Text;
        int Verb = 0;
        int ParamCount = 0;
    };

    // Normalises a text, or finds it normalised: `made` or the one that is kept. Throws
    // std::bad_alloc, and then keeps nothing.
    const Normalized& Normalize(const char* text, Normalized& made);

    // An empty result set, with the buffers of the last one that was kept. Throws std::bad_alloc.
    std::unique_ptr<IntDbResultSet> TakeResultSet();
    // Closes a result set and keeps its buffers.
    void Keep(std::unique_ptr<IntDbResultSet> closed);

  private:
    std::string m_text;
    Normalized m_normalized;
    std::unique_ptr<IntDbResultSet> m_spare;
};
