// The library's state, put back to what it is when the library is loaded.
#pragma once

#include <algorithm>
#include <iterator>

#include "ADE_ShotMentor.h"

// Frees nothing: whoever still holds a request or replies frees them first.
inline void reset_library() {
    sm_BT_total_length = -1;
    sm_BT_combine_length = 0;
    shotmentor_p_ReceiveData = nullptr;
    shotmentor_p_FullData = nullptr;
    std::fill(std::begin(shotmentor_p_Full_Q), std::end(shotmentor_p_Full_Q), nullptr);
    shotmentor_p_Full_Q_NUM = 0;
    gADE_PRO_model = 0;
    pro_sys_mode = 0;
    pro_film_mode = 0;
    pro_custom04_state = 0;
}
