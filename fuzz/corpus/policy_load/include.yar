include "/dev/null"
rule A { meta: id = "A" action = "block"  condition: true }
