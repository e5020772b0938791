rule l { strings: $s = "a" condition: for all i in (1,2) : ( for any of ($s) : ( $ at i ) ) and for 1 k in (0..2) : ( uint8be(k) == 0x4D ) }
