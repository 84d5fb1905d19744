-- What docs/guide.md's customers do while their database is captured.
INSERT INTO orders VALUES (3, 1, 1249.50, false, 'call first');
UPDATE orders SET paid = true, amount = 297.60 WHERE id = 2;
BEGIN;
DELETE FROM orders WHERE customer = 1;
DELETE FROM customers WHERE id = 1;
COMMIT;
INSERT INTO orders VALUES (4, 2, 89.95, false, NULL);
