"""SQLAlchemy's object mapper on a SQLite file: needs SQLAlchemy 1.4 or newer.

Run as:  python sqlalchemy_orm.py [DATABASE_FILE]
"""

import datetime
import sys
from decimal import Decimal

from sqlalchemy import Column, Date, ForeignKey, Integer, Numeric, Text, create_engine, select
from sqlalchemy.orm import Session, declarative_base, relationship

Base = declarative_base()


class Shop(Base):  # type: ignore[misc,valid-type]
    __tablename__ = "shop"
    id = Column(Integer, primary_key=True)
    name = Column(Text, nullable=False)
    sales = relationship("Sale", order_by="Sale.day", cascade="all, delete-orphan")


class Sale(Base):  # type: ignore[misc,valid-type]
    __tablename__ = "sale"
    id = Column(Integer, primary_key=True)
    shop_id = Column(ForeignKey("shop.id"), nullable=False)
    day = Column(Date)
    amount = Column(Numeric(10, 2))


def main() -> None:
    path = sys.argv[1] if len(sys.argv) > 1 else ":memory:"
    engine = create_engine("sqlite+vorda:///" + path)
    Base.metadata.create_all(engine)
    with Session(engine) as session:
        session.add(Shop(name="lamps", sales=[
            Sale(day=datetime.date(2026, 11, 20), amount=Decimal("12.50")),
            Sale(day=datetime.date(2026, 11, 19), amount=Decimal("149")),
        ]))
        session.commit()
        shop = session.scalars(select(Shop)).one()
        print(shop.name, [(str(sale.day), str(sale.amount)) for sale in shop.sales])
    engine.dispose()


if __name__ == "__main__":
    main()
