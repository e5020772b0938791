rule A { meta: id = "A" action = "block"  condition: filename matches /a/ }
