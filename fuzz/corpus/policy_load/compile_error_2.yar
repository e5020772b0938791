rule W { condition: "x" }
rule E { condition: nothing }