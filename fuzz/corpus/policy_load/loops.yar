rule A { meta: id = "A" action = "block"  condition: for all i in (1..3) : (for any j in (i,2,3) : (i == j)) and for 2 s in ("a","b") : (s == "a" or s == "b") }
