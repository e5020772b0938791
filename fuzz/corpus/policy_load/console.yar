import "console"
rule A { meta: id = "A" action = "block"  condition: console.log("x", 1.5) and console.hex(255) }
